#pragma once
// An HTTPS server on 127.0.0.1 for the agreement server tests: a self-signed certificate made at start
// (its PEM file is what the machine profile's caFile names), one connection at a time, one request per
// connection, answered by a handler the test supplies. Every request it read is kept.

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;

namespace qlb::consent::testing {

struct TlsExchange {
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;  // names in lower case
    std::vector<std::string> headerLines;        // as sent, in order
    std::string body;

    std::string Header(const std::string& lowerName) const {
        const auto it = headers.find(lowerName);
        return it == headers.end() ? std::string() : it->second;
    }
};

struct TlsReply {
    enum class Mode { Reply, Hang, Close };
    Mode mode = Mode::Reply;
    int status = 200;
    std::string body;

    static TlsReply Json(std::string text) { return {Mode::Reply, 200, std::move(text)}; }
    static TlsReply Hang() { return {Mode::Hang, 0, {}}; }
    static TlsReply Close() { return {Mode::Close, 0, {}}; }
};

class TlsTestServer {
  public:
    using Handler = std::function<TlsReply(const TlsExchange&)>;

    // Writes the certificate to `dir`/server-cert.pem.
    explicit TlsTestServer(const std::filesystem::path& dir, Handler handler = {});
    ~TlsTestServer();
    TlsTestServer(const TlsTestServer&) = delete;
    TlsTestServer& operator=(const TlsTestServer&) = delete;

    bool ok() const { return listenFd_ >= 0 && ctx_ != nullptr; }
    const std::filesystem::path& CertificateFile() const { return certFile_; }
    std::string BaseUrl() const;

    void SetHandler(Handler handler);
    std::vector<TlsExchange> Requests() const;
    std::size_t RequestCount() const;
    bool WaitForRequests(std::size_t count, int timeoutMs = 10000) const;

  private:
    void Serve();
    void HandleConnection(int fd);

    SSL_CTX* ctx_ = nullptr;
    std::filesystem::path certFile_;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    int port_ = 0;
    Handler handler_;
    mutable std::mutex mutex_;
    mutable std::condition_variable requestArrived_;
    std::vector<TlsExchange> requests_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// A 127.0.0.1 port on which nothing listens.
int UnusedLoopbackPort();

}  // namespace qlb::consent::testing
