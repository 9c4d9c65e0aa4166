#include "tls_test_server.h"

#include <arpa/inet.h>
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
#include <cstdio>
#include <memory>

namespace qlb::consent::testing {
namespace {

struct Deleters {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(SSL* p) const { SSL_free(p); }
    void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};

bool AddExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX v3{};
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, Deleters> ext(X509V3_EXT_conf_nid(nullptr, &v3, nid, value));
    return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// A self-signed P-256 certificate for 127.0.0.1, valid for a day.
bool MakeCertificate(std::unique_ptr<EVP_PKEY, Deleters>& key, std::unique_ptr<X509, Deleters>& cert) {
    key.reset(EVP_EC_gen("P-256"));
    cert.reset(X509_new());
    if (!key || !cert) {
        return false;
    }
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"),
                               -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    return AddExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE") &&
           AddExtension(cert.get(), NID_subject_alt_name, "IP:127.0.0.1") &&
           X509_sign(cert.get(), key.get(), EVP_sha256()) > 0;
}

std::string Lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

// Reads through TLS until `done` says the request is whole, the peer closes, or 5 s pass.
bool ReadRequest(SSL* ssl, int fd, std::string& raw) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    char buffer[4096];
    for (;;) {
        const auto headerEnd = raw.find("\r\n\r\n");
        if (headerEnd != std::string::npos) {
            const std::string head = Lower(raw.substr(0, headerEnd));
            std::size_t length = 0;
            const auto cl = head.find("content-length:");
            if (cl != std::string::npos) {
                length = std::stoul(head.substr(cl + 15));
            }
            if (raw.size() >= headerEnd + 4 + length) {
                return true;
            }
        }
        if (SSL_pending(ssl) == 0) {
            pollfd p{fd, POLLIN, 0};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
                return false;
            }
        }
        const int n = SSL_read(ssl, buffer, sizeof buffer);
        if (n <= 0) {
            const int error = SSL_get_error(ssl, n);
            if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
                continue;
            }
            return false;
        }
        raw.append(buffer, static_cast<std::size_t>(n));
    }
}

TlsExchange ParseRequest(const std::string& raw) {
    TlsExchange exchange;
    const auto headerEnd = raw.find("\r\n\r\n");
    const std::string head = raw.substr(0, headerEnd);
    exchange.body = raw.substr(headerEnd + 4);
    std::size_t pos = head.find("\r\n");
    const std::string requestLine = head.substr(0, pos);
    const auto sp1 = requestLine.find(' ');
    const auto sp2 = requestLine.find(' ', sp1 + 1);
    exchange.method = requestLine.substr(0, sp1);
    exchange.target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
    while (pos != std::string::npos && pos < head.size()) {
        const std::size_t start = pos + 2;
        pos = head.find("\r\n", start);
        const std::string line =
            head.substr(start, pos == std::string::npos ? std::string::npos : pos - start);
        const auto colon = line.find(':');
        if (colon != std::string::npos) {
            exchange.headerLines.push_back(line);
            exchange.headers[Lower(line.substr(0, colon))] = Trim(line.substr(colon + 1));
        }
    }
    return exchange;
}

}  // namespace

int UnusedLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

TlsTestServer::TlsTestServer(const std::filesystem::path& dir, Handler handler)
    : handler_(std::move(handler)) {
    std::unique_ptr<EVP_PKEY, Deleters> key;
    std::unique_ptr<X509, Deleters> cert;
    if (!MakeCertificate(key, cert)) {
        return;
    }
    certFile_ = dir / "server-cert.pem";
    if (FILE* out = std::fopen(certFile_.c_str(), "w")) {
        PEM_write_X509(out, cert.get());
        std::fclose(out);
    }
    ctx_ = SSL_CTX_new(TLS_server_method());
    if (ctx_ == nullptr || SSL_CTX_use_certificate(ctx_, cert.get()) != 1 ||
        SSL_CTX_use_PrivateKey(ctx_, key.get()) != 1) {
        return;
    }
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, 16) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::pipe(wakePipe_) != 0) {
        ::close(listenFd_);
        listenFd_ = -1;
        return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread(&TlsTestServer::Serve, this);
}

TlsTestServer::~TlsTestServer() {
    stop_ = true;
    if (wakePipe_[1] >= 0) {
        const char byte = 'x';
        (void)::write(wakePipe_[1], &byte, 1);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    for (int fd : {listenFd_, wakePipe_[0], wakePipe_[1]}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    if (ctx_ != nullptr) {
        SSL_CTX_free(ctx_);
    }
}

std::string TlsTestServer::BaseUrl() const {
    return "https://127.0.0.1:" + std::to_string(port_);
}

void TlsTestServer::SetHandler(Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handler_ = std::move(handler);
}

std::vector<TlsExchange> TlsTestServer::Requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::size_t TlsTestServer::RequestCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_.size();
}

bool TlsTestServer::WaitForRequests(std::size_t count, int timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return requestArrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                    [&] { return requests_.size() >= count; });
}

void TlsTestServer::Serve() {
    while (!stop_) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) <= 0 || (fds[1].revents & POLLIN) != 0) {
            continue;
        }
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            HandleConnection(fd);
            ::close(fd);
        }
    }
}

void TlsTestServer::HandleConnection(int fd) {
    timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    std::unique_ptr<SSL, Deleters> ssl(SSL_new(ctx_));
    if (!ssl || SSL_set_fd(ssl.get(), fd) != 1 || SSL_accept(ssl.get()) != 1) {
        ERR_clear_error();
        return;
    }
    std::string raw;
    if (!ReadRequest(ssl.get(), fd, raw)) {
        ERR_clear_error();
        return;
    }
    const TlsExchange exchange = ParseRequest(raw);
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(exchange);
        handler = handler_;
    }
    requestArrived_.notify_all();
    const TlsReply reply = handler ? handler(exchange) : TlsReply::Json("{\"errorCode\":0}");

    if (reply.mode == TlsReply::Mode::Hang) {
        // Holds the connection without an answer until the client gives up or the server stops.
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        (void)::poll(fds, 2, 30000);
        return;
    }
    if (reply.mode == TlsReply::Mode::Close) {
        return;
    }
    const std::string response =
        "HTTP/1.1 " + std::to_string(reply.status) +
        " OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(reply.body.size()) +
        "\r\nConnection: close\r\n\r\n" + reply.body;
    (void)SSL_write(ssl.get(), response.data(), static_cast<int>(response.size()));
    (void)SSL_shutdown(ssl.get());
    ERR_clear_error();
}

}  // namespace qlb::consent::testing
