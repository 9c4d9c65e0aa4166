#pragma once
// A small HTTP/1.1 server on 127.0.0.1 for tests, plain or over TLS with a certificate the test
// process makes for 127.0.0.1 only. One connection at a time, one request per connection, answered by a
// handler the test supplies. Every request it read is kept for the test to look at.

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;

namespace qlb::testing {

struct HttpExchange {
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;

    std::string Header(const std::string& lowerName) const {
        const auto it = headers.find(lowerName);
        return it == headers.end() ? std::string() : it->second;
    }
};

struct HttpReply {
    // Statuses that send nothing: the connection is closed at once, or held until the client gives up.
    static constexpr int kCloseWithoutReply = 0;
    static constexpr int kHoldWithoutReply = -1;

    int status = 200;
    std::string body;
    std::map<std::string, std::string> headers;
};

class HttpTestServer {
  public:
    using Handler = std::function<HttpReply(const HttpExchange&)>;

    // With `tls`, a client that fails the handshake is hung up on and counts as no request.
    explicit HttpTestServer(Handler handler = {}, bool tls = false);
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    // The PEM certificate a TLS server shows; a client trusts it as its own CA file.
    static std::string CertificateFile();

    int port() const { return port_; }
    // "http://127.0.0.1:port/path", or https for a TLS server.
    std::string Url(const std::string& path = "/") const;

    void SetHandler(Handler handler);
    std::vector<HttpExchange> Requests() const;
    std::size_t RequestCount() const;
    // Waits until `count` requests were read, or the deadline passed; true when they were.
    bool WaitForRequests(std::size_t count, int timeoutMs = 10000) const;

  private:
    void Serve();
    void HandleConnection(int fd);

    SSL_CTX* tls_ = nullptr;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    int port_ = 0;
    Handler handler_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<HttpExchange> requests_;
    std::thread thread_;
};

}  // namespace qlb::testing
