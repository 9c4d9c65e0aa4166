#pragma once
// A small HTTP/1.1 server on 127.0.0.1 for tests: one connection at a time, one request per connection,
// answered by a handler the test supplies. Every request it read is kept for the test to look at.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Certificate and key (PEM files) for a server that speaks HTTPS.
struct TlsFiles {
    std::string certificate;
    std::string key;
};

struct HttpReply {
    int status = 200;
    std::string body;
    std::map<std::string, std::string> headers;
};

class LoopbackHttpServer {
  public:
    using Handler = std::function<HttpReply(const HttpExchange&)>;

    explicit LoopbackHttpServer(Handler handler = {});
    // An HTTPS server; a client that fails the handshake is hung up on and counts as no request.
    LoopbackHttpServer(Handler handler, const TlsFiles& tls);
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:port/path", or https for a TLS server.
    std::string Url(const std::string& path = "/") const;

    void SetHandler(Handler handler);
    std::vector<HttpExchange> Requests() const;
    std::size_t RequestCount() const;
    // Waits until `count` requests were read, or the deadline passed; true when they were.
    bool WaitForRequests(std::size_t count, int timeoutMs = 10000) const;

  private:
    class Connection;

    void Listen();
    void Serve();
    void HandleConnection(Connection& connection);

    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    int port_ = 0;
    void* tlsContext_ = nullptr;  // SSL_CTX*, null for plain HTTP
    Handler handler_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<HttpExchange> requests_;
    std::thread thread_;
};

}  // namespace qlb::testing
