#include "loopback_http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
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

void SendAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return;
        }
        done += static_cast<size_t>(n);
    }
}

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(Handler handler) : handler_(std::move(handler)) {
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
}

std::string LoopbackHttpServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
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
            HandleConnection(fd);
            ::close(fd);
        }
    }
}

void LoopbackHttpServer::HandleConnection(int fd) {
    std::string data;
    char chunk[4096];
    size_t headEnd = std::string::npos;
    // The head, then as much body as Content-Length says; a client that goes away ends the exchange.
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) <= 0 || fds[1].revents != 0) {
            return;
        }
        const ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
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
        const ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
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
    SendAll(fd, out);
}

}  // namespace qlb::testing
