#include "platform/services/control_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qlb::platform {
namespace {

void PutU32(std::uint8_t* out, std::uint32_t v) {
    out[0] = static_cast<std::uint8_t>(v);
    out[1] = static_cast<std::uint8_t>(v >> 8);
    out[2] = static_cast<std::uint8_t>(v >> 16);
    out[3] = static_cast<std::uint8_t>(v >> 24);
}

std::uint32_t GetU32(const std::uint8_t* in) {
    return static_cast<std::uint32_t>(in[0]) | (static_cast<std::uint32_t>(in[1]) << 8) |
           (static_cast<std::uint32_t>(in[2]) << 16) | (static_cast<std::uint32_t>(in[3]) << 24);
}

bool FillAddress(const std::filesystem::path& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof(addr.sun_path)) {
        return false;
    }
    std::memcpy(addr.sun_path, text.c_str(), text.size() + 1);
    return true;
}

// Reads exactly `size` bytes before the deadline; false on end of stream, error or time-out.
bool ReadAll(int fd, std::uint8_t* out, std::size_t size, int timeoutMs) {
    std::size_t got = 0;
    while (got < size) {
        pollfd p{fd, POLLIN, 0};
        const int rc = ::poll(&p, 1, timeoutMs);
        if (rc < 0 && errno == EINTR) {
            continue;
        }
        if (rc <= 0) {
            return false;
        }
        const ssize_t n = ::recv(fd, out + got, size - got, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(n);
    }
    return true;
}

bool WriteAll(int fd, const std::uint8_t* data, std::size_t size) {
    std::size_t sent = 0;
    while (sent < size) {
        const ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

std::array<std::uint8_t, kControlRequestSize> EncodeControlRequest(const ControlRequest& request) {
    std::array<std::uint8_t, kControlRequestSize> out{};
    PutU32(out.data(), kControlRequestMagic);
    PutU32(out.data() + 4, request.control);
    PutU32(out.data() + 8, request.eventType);
    PutU32(out.data() + 12, request.sessionId);
    return out;
}

std::optional<ControlRequest> DecodeControlRequest(std::span<const std::uint8_t> bytes) {
    if (bytes.size() != kControlRequestSize || GetU32(bytes.data()) != kControlRequestMagic) {
        return std::nullopt;
    }
    return ControlRequest{GetU32(bytes.data() + 4), GetU32(bytes.data() + 8), GetU32(bytes.data() + 12)};
}

std::array<std::uint8_t, kControlReplySize> EncodeControlReply(const SysResult<SERVICE_STATUS>& reply) {
    std::array<std::uint8_t, kControlReplySize> out{};
    const SERVICE_STATUS& s = reply.value;
    const std::uint32_t words[] = {kControlReplyMagic,
                                   reply.error,
                                   s.dwServiceType,
                                   s.dwCurrentState,
                                   s.dwControlsAccepted,
                                   s.dwWin32ExitCode,
                                   s.dwServiceSpecificExitCode,
                                   s.dwCheckPoint,
                                   s.dwWaitHint};
    for (std::size_t i = 0; i < std::size(words); ++i) {
        PutU32(out.data() + 4 * i, words[i]);
    }
    return out;
}

std::optional<SysResult<SERVICE_STATUS>> DecodeControlReply(std::span<const std::uint8_t> bytes) {
    if (bytes.size() != kControlReplySize || GetU32(bytes.data()) != kControlReplyMagic) {
        return std::nullopt;
    }
    SysResult<SERVICE_STATUS> r;
    r.error = GetU32(bytes.data() + 4);
    r.value.dwServiceType = GetU32(bytes.data() + 8);
    r.value.dwCurrentState = GetU32(bytes.data() + 12);
    r.value.dwControlsAccepted = GetU32(bytes.data() + 16);
    r.value.dwWin32ExitCode = GetU32(bytes.data() + 20);
    r.value.dwServiceSpecificExitCode = GetU32(bytes.data() + 24);
    r.value.dwCheckPoint = GetU32(bytes.data() + 28);
    r.value.dwWaitHint = GetU32(bytes.data() + 32);
    return r;
}

SysResult<SERVICE_STATUS> SendControl(const std::filesystem::path& socket, const ControlRequest& request,
                                      int timeoutMs) {
    using R = SysResult<SERVICE_STATUS>;
    sockaddr_un addr;
    if (!FillAddress(socket, addr)) {
        return R::Fail(win::ERROR_FILENAME_EXCED_RANGE);
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return R::Fail(win::FromErrno(errno));
    }
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return R::Fail(win::ERROR_SERVICE_NOT_ACTIVE);
    }
    const auto bytes = EncodeControlRequest(request);
    std::array<std::uint8_t, kControlReplySize> reply{};
    const bool sent = WriteAll(fd, bytes.data(), bytes.size());
    const bool got = sent && ReadAll(fd, reply.data(), reply.size(), timeoutMs);
    ::close(fd);
    if (!sent) {
        return R::Fail(win::ERROR_SERVICE_NOT_ACTIVE);
    }
    if (!got) {
        return R::Fail(win::ERROR_SERVICE_REQUEST_TIMEOUT);
    }
    auto decoded = DecodeControlReply(reply);
    if (!decoded) {
        return R::Fail(win::ERROR_INVALID_DATA);
    }
    return *decoded;
}

ControlListener::~ControlListener() {
    Close();
}

SysStatus ControlListener::Listen(const std::filesystem::path& socket) {
    Close();
    sockaddr_un addr;
    if (!FillAddress(socket, addr)) {
        return SysStatus::Fail(win::ERROR_FILENAME_EXCED_RANGE);
    }
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return SysStatus::Fail(win::FromErrno(errno));
    }
    wakeRead_ = pipeFds[0];
    wakeWrite_ = pipeFds[1];
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) {
        const int err = errno;
        Close();
        return SysStatus::Fail(win::FromErrno(err));
    }
    // A socket left behind by a process that died is ours to replace: only the process the manager
    // started gets this far.
    ::unlink(socket.c_str());
    if (::bind(listenFd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(listenFd_, 16) != 0) {
        const int err = errno;
        Close();
        return SysStatus::Fail(win::FromErrno(err));
    }
    path_ = socket;
    struct stat st {};
    boundInode_ = ::stat(socket.c_str(), &st) == 0 ? st.st_ino : 0;
    return SysStatus::Ok();
}

void ControlListener::Serve(const ServiceProcessHost::Deliver& deliver) {
    if (listenFd_ < 0) {
        return;
    }
    for (;;) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeRead_, POLLIN, 0}};
        const int rc = ::poll(fds, 2, -1);
        if (rc < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        if ((fds[0].revents & POLLIN) == 0) {
            continue;
        }
        const int conn = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0) {
            continue;
        }
        std::array<std::uint8_t, kControlRequestSize> request{};
        // A sender that does not finish its request in time is dropped; the next one is served.
        if (ReadAll(conn, request.data(), request.size(), 5000)) {
            SysResult<SERVICE_STATUS> reply;
            if (const auto decoded = DecodeControlRequest(request)) {
                reply = deliver(*decoded);
            } else {
                reply = SysResult<SERVICE_STATUS>::Fail(win::ERROR_INVALID_DATA);
            }
            const auto bytes = EncodeControlReply(reply);
            WriteAll(conn, bytes.data(), bytes.size());
        }
        ::close(conn);
        pollfd wake{wakeRead_, POLLIN, 0};
        if (::poll(&wake, 1, 0) > 0) {
            return;
        }
    }
}

void ControlListener::Stop() {
    if (wakeWrite_ >= 0) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = ::write(wakeWrite_, &byte, 1);
    }
}

void ControlListener::Close() {
    CloseListening();
    if (wakeRead_ >= 0) {
        ::close(wakeRead_);
        wakeRead_ = -1;
    }
    if (wakeWrite_ >= 0) {
        ::close(wakeWrite_);
        wakeWrite_ = -1;
    }
}

void ControlListener::CloseListening() {
    if (listenFd_ >= 0) {
        ::close(listenFd_);
        listenFd_ = -1;
        // A successor process may already have bound the same path.
        struct stat st {};
        if (boundInode_ != 0 && ::stat(path_.c_str(), &st) == 0 && st.st_ino == boundInode_) {
            ::unlink(path_.c_str());
        }
        boundInode_ = 0;
    }
}

}  // namespace qlb::platform
