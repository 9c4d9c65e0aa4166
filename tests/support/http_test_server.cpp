#include "http_test_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace qlb::testing {
namespace {

HttpExchange ParseHead(const std::string& head) {
    HttpExchange exchange;
    std::istringstream in(head);
    std::string line;
    std::getline(in, line);
    std::istringstream(line) >> exchange.method >> exchange.target;
    while (std::getline(in, line)) {
        const auto colon = line.find(':');
        const auto begin = line.find_first_not_of(" \t\r", colon + 1);
        if (colon == std::string::npos) {
            continue;
        }
        std::string name = line.substr(0, colon);
        for (char& c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        exchange.headers[name] =
            begin == std::string::npos ? "" : line.substr(begin, line.find_last_not_of(" \t\r") + 1 - begin);
    }
    return exchange;
}

struct Deleters {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};

bool AddExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX v3{};
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, Deleters> ext(X509V3_EXT_conf_nid(nullptr, &v3, nid, value));
    return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// The certificate every TLS server of this test process shows: self-signed P-256, made out to
// 127.0.0.1 only, valid for a day; its PEM lies in a file of the process's own that clients trust.
struct TestCertificate {
    std::unique_ptr<EVP_PKEY, Deleters> key{EVP_EC_gen("P-256")};
    std::unique_ptr<X509, Deleters> cert{X509_new()};
    std::string file;

    TestCertificate() {
        X509* c = cert.get();
        X509_set_version(c, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(c), 1);
        X509_gmtime_adj(X509_getm_notBefore(c), -3600);
        X509_gmtime_adj(X509_getm_notAfter(c), 86400);
        X509_set_pubkey(c, key.get());
        X509_NAME* name = X509_get_subject_name(c);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
        X509_set_issuer_name(c, name);
        if (!AddExtension(c, NID_basic_constraints, "critical,CA:TRUE") ||
            !AddExtension(c, NID_subject_alt_name, "IP:127.0.0.1") ||
            X509_sign(c, key.get(), EVP_sha256()) <= 0) {
            throw std::runtime_error("test server cannot make its certificate");
        }
        file =
            (std::filesystem::temp_directory_path() / ("qlb-test-ca-" + std::to_string(::getpid()) + ".pem"))
                .string();
        std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(file.c_str(), "w"), &std::fclose);
        if (!out || PEM_write_X509(out.get(), c) != 1) {
            throw std::runtime_error("test server cannot write its certificate");
        }
    }
    ~TestCertificate() { std::remove(file.c_str()); }
};

const TestCertificate& Certificate() {
    static const TestCertificate certificate;
    return certificate;
}

}  // namespace

HttpTestServer::HttpTestServer(Handler handler, bool tls) : handler_(std::move(handler)) {
    // A client that hangs up mid-reply must not end the test process.
    ::signal(SIGPIPE, SIG_IGN);
    if (tls) {
        tls_ = SSL_CTX_new(TLS_server_method());
        if (!tls_ || SSL_CTX_use_certificate(tls_, Certificate().cert.get()) != 1 ||
            SSL_CTX_use_PrivateKey(tls_, Certificate().key.get()) != 1) {
            SSL_CTX_free(tls_);
            throw std::runtime_error("test server cannot load its certificate");
        }
    }
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listenFd_, 16) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::pipe2(wakePipe_, O_CLOEXEC) != 0) {
        throw std::runtime_error("test server cannot listen");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
}

HttpTestServer::~HttpTestServer() {
    [[maybe_unused]] const ssize_t n = ::write(wakePipe_[1], "x", 1);
    thread_.join();
    ::close(listenFd_);
    ::close(wakePipe_[0]);
    ::close(wakePipe_[1]);
    SSL_CTX_free(tls_);
}

std::string HttpTestServer::CertificateFile() {
    return Certificate().file;
}

std::string HttpTestServer::Url(const std::string& path) const {
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
}

void HttpTestServer::SetHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::vector<HttpExchange> HttpTestServer::Requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::size_t HttpTestServer::RequestCount() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
}

bool HttpTestServer::WaitForRequests(std::size_t count, int timeoutMs) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return requests_.size() >= count; });
}

void HttpTestServer::Serve() {
    for (;;) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            continue;
        }
        if (fds[1].revents != 0) {
            return;
        }
        if (const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC); fd >= 0) {
            HandleConnection(fd);
            ::close(fd);
            ERR_clear_error();
        }
    }
}

void HttpTestServer::HandleConnection(int fd) {
    // Every read and write is bounded: a client that stalls is dropped.
    const timeval limit{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(tls_ ? SSL_new(tls_) : nullptr, SSL_free);
    if (ssl && (SSL_set_fd(ssl.get(), fd) != 1 || SSL_accept(ssl.get()) != 1)) {
        return;
    }
    std::string data;
    const auto receive = [&] {
        char chunk[4096];
        const long n = ssl ? SSL_read(ssl.get(), chunk, sizeof(chunk)) : ::recv(fd, chunk, sizeof(chunk), 0);
        data.append(chunk, n > 0 ? static_cast<size_t>(n) : 0);
        return n > 0;
    };
    // The head, then as much body as Content-Length says; a client that goes away ends the exchange.
    size_t headEnd = std::string::npos;
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
        if (!receive() || !std::isupper(static_cast<unsigned char>(data[0]))) {
            return;  // gone, or not HTTP (a TLS hello to a plain server)
        }
    }
    HttpExchange exchange = ParseHead(data.substr(0, headEnd));
    const std::string length = exchange.Header("content-length");
    while (data.size() < headEnd + 4 + (length.empty() ? 0 : std::stoul(length))) {
        if (!receive()) {
            return;
        }
    }
    exchange.body = data.substr(headEnd + 4);

    Handler handler;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(exchange);
        handler = handler_;
    }
    changed_.notify_all();
    const HttpReply reply = handler ? handler(exchange) : HttpReply{};
    if (reply.status == HttpReply::kHoldWithoutReply) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        ::poll(fds, 2, 30000);
        return;
    }
    if (reply.status == HttpReply::kCloseWithoutReply) {
        return;
    }
    std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " Status\r\n";
    for (const auto& [name, value] : reply.headers) {
        out += name + ": " + value + "\r\n";
    }
    out +=
        "Content-Length: " + std::to_string(reply.body.size()) + "\r\nConnection: close\r\n\r\n" + reply.body;
    for (size_t done = 0; done < out.size();) {
        const long n = ssl ? SSL_write(ssl.get(), out.data() + done, static_cast<int>(out.size() - done))
                           : ::send(fd, out.data() + done, out.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return;
        }
        done += static_cast<size_t>(n);
    }
    if (ssl) {
        SSL_shutdown(ssl.get());
    }
}

}  // namespace qlb::testing
