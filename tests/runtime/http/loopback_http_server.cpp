#include "loopback_http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <stdexcept>

namespace qlb::testing {

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string Trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t");
    const auto end = text.find_last_not_of(" \t\r");
    return begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
}

const char* Reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 204:
            return "No Content";
        case 404:
            return "Not Found";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        default:
            return "Status";
    }
}

}  // namespace

// A plain or TLS connection. A TLS read blocks without looking at the wake pipe; the TLS tests only use
// clients that finish their requests.
class LoopbackHttpServer::Connection {
  public:
    Connection(int fd, SSL_CTX* context) : fd_(fd) {
        if (context) {
            ssl_ = SSL_new(context);
            SSL_set_fd(ssl_, fd_);
            handshakeOk_ = SSL_accept(ssl_) == 1;
        }
    }
    ~Connection() {
        if (ssl_) {
            if (handshakeOk_) {
                SSL_shutdown(ssl_);
            }
            SSL_free(ssl_);
        }
        ::close(fd_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool usable() const { return !ssl_ || handshakeOk_; }
    bool tls() const { return ssl_ != nullptr; }
    int fd() const { return fd_; }

    ssize_t Receive(char* buffer, size_t size) {
        if (ssl_) {
            const int n = SSL_read(ssl_, buffer, static_cast<int>(size));
            return n > 0 ? n : -1;
        }
        return ::recv(fd_, buffer, size, 0);
    }

    void SendAll(const std::string& data) {
        if (ssl_) {
            SSL_write(ssl_, data.data(), static_cast<int>(data.size()));
            return;
        }
        size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = ::send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
            if (n <= 0) {
                return;
            }
            done += static_cast<size_t>(n);
        }
    }

  private:
    int fd_;
    SSL* ssl_ = nullptr;
    bool handshakeOk_ = false;
};

LoopbackHttpServer::LoopbackHttpServer(Handler handler) : handler_(std::move(handler)) {
    Listen();
}

LoopbackHttpServer::LoopbackHttpServer(Handler handler, const TlsFiles& tls) : handler_(std::move(handler)) {
    // OpenSSL writes with write(2): a client that hung up mid-handshake must not end the test process.
    ::signal(SIGPIPE, SIG_IGN);
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (!context || SSL_CTX_use_certificate_file(context, tls.certificate.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, tls.key.c_str(), SSL_FILETYPE_PEM) != 1) {
        SSL_CTX_free(context);
        throw std::runtime_error("loopback server cannot load its certificate");
    }
    tlsContext_ = context;
    Listen();
}

void LoopbackHttpServer::Listen() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listenFd_, 16) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::pipe2(wakePipe_, O_CLOEXEC) != 0) {
        throw std::runtime_error("loopback server cannot listen");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
    [[maybe_unused]] const ssize_t n = ::write(wakePipe_[1], "x", 1);
    if (thread_.joinable()) {
        thread_.join();
    }
    ::close(listenFd_);
    ::close(wakePipe_[0]);
    ::close(wakePipe_[1]);
    SSL_CTX_free(static_cast<SSL_CTX*>(tlsContext_));
}

std::string LoopbackHttpServer::Url(const std::string& path) const {
    return std::string(tlsContext_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
}

void LoopbackHttpServer::SetHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::vector<HttpExchange> LoopbackHttpServer::Requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::size_t LoopbackHttpServer::RequestCount() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
}

bool LoopbackHttpServer::WaitForRequests(std::size_t count, int timeoutMs) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return requests_.size() >= count; });
}

void LoopbackHttpServer::Serve() {
    for (;;) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            continue;
        }
        if (fds[1].revents != 0) {
            return;
        }
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            Connection connection(fd, static_cast<SSL_CTX*>(tlsContext_));
            if (connection.usable()) {
                HandleConnection(connection);
            }
        }
    }
}

void LoopbackHttpServer::HandleConnection(Connection& connection) {
    const int fd = connection.fd();
    std::string data;
    char chunk[4096];
    size_t headEnd = std::string::npos;
    // The head, then as much body as Content-Length says; a client that goes away ends the exchange.
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
        if (!connection.tls()) {
            pollfd fds[2] = {{fd, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
            if (::poll(fds, 2, -1) <= 0 || fds[1].revents != 0) {
                return;
            }
        }
        const ssize_t n = connection.Receive(chunk, sizeof(chunk));
        if (n <= 0) {
            return;
        }
        data.append(chunk, static_cast<size_t>(n));
        if (!std::isupper(static_cast<unsigned char>(data[0]))) {
            return;  // not HTTP (a TLS hello): hang up
        }
    }
    HttpExchange exchange;
    const std::string head = data.substr(0, headEnd);
    size_t lineEnd = head.find("\r\n");
    const std::string requestLine = head.substr(0, lineEnd);
    const auto firstBlank = requestLine.find(' ');
    const auto secondBlank = requestLine.find(' ', firstBlank + 1);
    exchange.method = requestLine.substr(0, firstBlank);
    exchange.target = requestLine.substr(firstBlank + 1, secondBlank - firstBlank - 1);
    while (lineEnd != std::string::npos && lineEnd < head.size()) {
        const size_t next = head.find("\r\n", lineEnd + 2);
        const std::string line =
            head.substr(lineEnd + 2, next == std::string::npos ? std::string::npos : next - lineEnd - 2);
        if (const auto colon = line.find(':'); colon != std::string::npos) {
            exchange.headers[Lower(line.substr(0, colon))] = Trim(line.substr(colon + 1));
        }
        lineEnd = next;
    }
    const size_t length =
        exchange.headers.count("content-length") ? std::stoul(exchange.headers["content-length"]) : 0;
    exchange.body = data.substr(headEnd + 4);
    while (exchange.body.size() < length) {
        const ssize_t n = connection.Receive(chunk, sizeof(chunk));
        if (n <= 0) {
            return;
        }
        exchange.body.append(chunk, static_cast<size_t>(n));
    }

    Handler handler;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(exchange);
        handler = handler_;
    }
    changed_.notify_all();
    const HttpReply reply = handler ? handler(exchange) : HttpReply{};
    std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " " + Reason(reply.status) + "\r\n";
    for (const auto& [name, value] : reply.headers) {
        out += name + ": " + value + "\r\n";
    }
    out +=
        "Content-Length: " + std::to_string(reply.body.size()) + "\r\nConnection: close\r\n\r\n" + reply.body;
    connection.SendAll(out);
}

}  // namespace qlb::testing
