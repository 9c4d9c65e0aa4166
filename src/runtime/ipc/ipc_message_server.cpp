#include "runtime/ipc/ipc_message_server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/socket_util.h"

namespace qlb::ipc {

std::filesystem::path DefaultSocketPath() {
    return MachineProfile::Current().runDir / "ipc.sock";
}

}  // namespace qlb::ipc

using namespace qlb::ipc;
using Clock = std::chrono::steady_clock;

namespace {

// Connections refused for being one too many still get their HELLO answered; beyond this many more
// they are closed at once.
constexpr std::size_t kRefusalSlack = 16;
constexpr std::size_t kReadChunk = 64 * 1024;
// Bytes read from one connection per wake-up, so that one busy sender cannot starve the others.
constexpr std::size_t kReadBudget = 1024 * 1024;
constexpr std::size_t kLoggedUnknownIds = 64;

struct Connection {
    int fd = -1;
    PeerCredentials peer;
    int refuseStatus = 0;  // the errno its HELLO is answered with, 0 to let it join
    bool joined = false;
    bool closing = false;
    bool dirty = false;
    bool wantWrite = false;
    std::int32_t moduleId = 0;
    Clock::time_point helloDeadline;
    std::uint8_t hello[kHelloSize] = {};
    std::size_t helloBytes = 0;
    FrameReader reader;
    std::vector<std::uint8_t> out;
    std::size_t outOffset = 0;

    std::size_t Queued() const noexcept { return out.size() - outOffset; }
};

}  // namespace

struct IPCMessageServer::Impl {
    std::filesystem::path path;
    PeerPolicy policy;
    HubLimits limits;

    int listenFd = -1;
    int epollFd = -1;
    int wakeFd = -1;
    std::thread thread;
    std::atomic<bool> running{false};
    bool bound = false;

    std::unordered_map<int, std::unique_ptr<Connection>> connections;
    std::unordered_map<std::int32_t, std::vector<Connection*>> byModule;
    std::vector<Connection*> dirty;
    std::vector<Connection*> doomed;
    std::set<std::int32_t> loggedUnknown;

    mutable std::mutex countersMutex;
    HubCounters counters;

    Impl(std::filesystem::path p, PeerPolicy pol, HubLimits lim)
        : path(std::move(p)), policy(std::move(pol)), limits(lim) {
        const std::size_t floor = kFramePrefixSize + static_cast<std::size_t>(kMaxDataLength);
        if (limits.maxQueuedBytes < floor) {
            limits.maxQueuedBytes = floor;
        }
    }

    void Count(std::uint64_t HubCounters::*field, std::uint64_t by = 1) {
        std::lock_guard<std::mutex> lock(countersMutex);
        counters.*field += by;
    }

    bool Start();
    void Stop();
    void Run();
    void Accept();
    void OnReadable(Connection& conn);
    bool ReadHello(Connection& conn);
    void Join(Connection& conn);
    void Route(Connection& from, const FrameView& frame);
    void Enqueue(Connection& to, const std::uint8_t* bytes, std::size_t size);
    void Flush(Connection& conn);
    void SetWantWrite(Connection& conn, bool want);
    void Doom(Connection& conn);
    void CloseDoomed();
    void CheckHelloTimeouts(Clock::time_point now);
    int NextTimeoutMs(Clock::time_point now) const;
};

IPCMessageServer::IPCMessageServer()
    : IPCMessageServer(DefaultSocketPath(),
                       PeerPolicy::FromAllowList(qlb::MachineProfile::Current().ipcAllow)) {}

IPCMessageServer::IPCMessageServer(std::filesystem::path socketPath, PeerPolicy policy, HubLimits limits)
    : impl_(std::make_unique<Impl>(std::move(socketPath), std::move(policy), limits)) {}

IPCMessageServer::~IPCMessageServer() {
    Stop();
}

bool IPCMessageServer::Start() {
    return impl_->Start();
}
void IPCMessageServer::Stop() {
    impl_->Stop();
}
const std::filesystem::path& IPCMessageServer::SocketPath() const noexcept {
    return impl_->path;
}

HubCounters IPCMessageServer::Counters() const {
    std::lock_guard<std::mutex> lock(impl_->countersMutex);
    return impl_->counters;
}

bool IPCMessageServer::Impl::Start() {
    if (running) {
        return true;
    }
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);

    sockaddr_un address{};
    if (!FillUnixAddress(path, address)) {
        QLOG_ERROR("IPC socket path too long: " << path.string());
        return false;
    }
    // A socket file left by a hub that died is taken over; one that still answers is not.
    if (std::filesystem::exists(std::filesystem::symlink_status(path, ec))) {
        const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool alive =
            probe >= 0 && ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        if (probe >= 0) {
            ::close(probe);
        }
        if (alive) {
            QLOG_ERROR("IPC hub already running on " << path.string());
            return false;
        }
        ::unlink(path.c_str());
    }

    listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        QLOG_ERROR("IPC socket bind failed: " << path.string() << " errno=" << errno);
        Stop();
        return false;
    }
    bound = true;
    // Who may join is the allow policy's decision, made on the peer's credentials; the file itself is
    // open so that users of an allowed group reach it.
    ::chmod(path.c_str(), 0666);
    if (::listen(listenFd, SOMAXCONN) != 0) {
        QLOG_ERROR("IPC socket listen failed, errno=" << errno);
        Stop();
        return false;
    }
    epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (epollFd < 0 || wakeFd < 0) {
        QLOG_ERROR("IPC hub set-up failed, errno=" << errno);
        Stop();
        return false;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = listenFd;
    ::epoll_ctl(epollFd, EPOLL_CTL_ADD, listenFd, &event);
    event.data.fd = wakeFd;
    ::epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &event);

    running = true;
    thread = std::thread([this] { Run(); });
    QLOG_WARN("IPC hub listening on " << path.string());
    return true;
}

void IPCMessageServer::Impl::Stop() {
    if (thread.joinable()) {
        running = false;
        const std::uint64_t one = 1;
        [[maybe_unused]] ssize_t written = ::write(wakeFd, &one, sizeof(one));
        thread.join();
        QLOG_WARN("IPC hub stopped");
    }
    running = false;
    for (auto& [fd, conn] : connections) {
        ::close(fd);
    }
    connections.clear();
    byModule.clear();
    dirty.clear();
    doomed.clear();
    for (int* fd : {&listenFd, &epollFd, &wakeFd}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
    if (bound) {
        ::unlink(path.c_str());
        bound = false;
    }
}

int IPCMessageServer::Impl::NextTimeoutMs(Clock::time_point now) const {
    int timeout = -1;
    for (const auto& [fd, conn] : connections) {
        if (conn->joined || conn->closing) {
            continue;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(conn->helloDeadline - now).count();
        const int ms = left < 0 ? 0 : static_cast<int>(left) + 1;
        if (timeout < 0 || ms < timeout) {
            timeout = ms;
        }
    }
    return timeout;
}

void IPCMessageServer::Impl::Run() {
    std::vector<epoll_event> events(128);
    while (running) {
        const int timeout = NextTimeoutMs(Clock::now());
        const int count = ::epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), timeout);
        if (count < 0 && errno != EINTR) {
            QLOG_ERROR("IPC hub epoll_wait failed, errno=" << errno);
            break;
        }
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            const std::uint32_t mask = events[static_cast<std::size_t>(i)].events;
            if (fd == wakeFd) {
                std::uint64_t value = 0;
                [[maybe_unused]] ssize_t got = ::read(wakeFd, &value, sizeof(value));
                continue;
            }
            if (fd == listenFd) {
                Accept();
                continue;
            }
            auto found = connections.find(fd);
            if (found == connections.end() || found->second->closing) {
                continue;
            }
            Connection& conn = *found->second;
            try {
                if (mask & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                    OnReadable(conn);
                }
                if ((mask & EPOLLOUT) && !conn.closing) {
                    Flush(conn);
                }
            } catch (const std::exception& e) {
                // Memory for one peer's frames ran out: that peer goes, the hub stays.
                QLOG_ERROR("IPC connection of module 0x" << std::hex << conn.moduleId << std::dec
                                                         << " failed: " << e.what());
                Doom(conn);
            }
        }
        for (std::size_t i = 0; i < dirty.size(); ++i) {
            Connection* conn = dirty[i];
            conn->dirty = false;
            if (!conn->closing) {
                Flush(*conn);
            }
        }
        dirty.clear();
        CheckHelloTimeouts(Clock::now());
        CloseDoomed();
    }
}

void IPCMessageServer::Impl::Accept() {
    for (;;) {
        const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED) {
                QLOG_ERROR("IPC accept failed, errno=" << errno);
            }
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            return;
        }
        if (connections.size() >= limits.maxConnections + kRefusalSlack) {
            QLOG_ERROR("IPC connection refused: too many connections");
            Count(&HubCounters::refused);
            ::close(fd);
            continue;
        }
        auto conn = std::make_unique<Connection>();
        conn->fd = fd;
        conn->helloDeadline = Clock::now() + limits.helloTimeout;
        if (!ReadPeerCredentials(fd, conn->peer)) {
            conn->refuseStatus = EACCES;
        } else if (!policy.Allows(conn->peer)) {
            conn->refuseStatus = EACCES;
        } else if (connections.size() >= limits.maxConnections) {
            conn->refuseStatus = EUSERS;
        }
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
            ::close(fd);
            continue;
        }
        connections.emplace(fd, std::move(conn));
    }
}

bool IPCMessageServer::Impl::ReadHello(Connection& conn) {
    // Only the HELLO is read before the answer: frames sent right behind it stay in the socket until
    // the peer has joined.
    const ssize_t got = ::recv(conn.fd, conn.hello + conn.helloBytes, kHelloSize - conn.helloBytes, 0);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        Doom(conn);
        return false;
    }
    if (got < 0) {
        return false;
    }
    conn.helloBytes += static_cast<std::size_t>(got);
    if (conn.helloBytes < kHelloSize) {
        return false;
    }
    const Hello hello = DecodeHello(std::span<const std::uint8_t, kHelloSize>(conn.hello, kHelloSize));
    int status = conn.refuseStatus;
    if (hello.magic != kHelloMagic || hello.version != kProtocolVersion) {
        status = EPROTO;
    } else if (status == 0 && hello.value == 0) {
        status = EINVAL;  // 0 is the broadcast address, not a module
    }
    conn.moduleId = hello.value;
    const auto reply = EncodeHello(Hello{kHelloMagic, kProtocolVersion, status});
    if (status != 0) {
        QLOG_ERROR("IPC peer refused: pid=" << conn.peer.pid << " uid=" << conn.peer.uid << " module=0x"
                                            << std::hex << hello.value << std::dec << " status=" << status);
        Count(&HubCounters::refused);
        [[maybe_unused]] ssize_t sent =
            ::send(conn.fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        Doom(conn);
        return false;
    }
    Enqueue(conn, reply.data(), reply.size());
    Join(conn);
    return true;
}

void IPCMessageServer::Impl::Join(Connection& conn) {
    conn.joined = true;
    byModule[conn.moduleId].push_back(&conn);
    Count(&HubCounters::joined);
    QLOG_WARN("IPC module joined: 0x" << std::hex << conn.moduleId << std::dec << " pid=" << conn.peer.pid);
}

void IPCMessageServer::Impl::OnReadable(Connection& conn) {
    if (!conn.joined && !ReadHello(conn)) {
        return;
    }
    std::size_t budget = kReadBudget;
    while (!conn.closing && budget > 0) {
        auto tail = conn.reader.WritableTail(kReadChunk);
        const ssize_t got = ::recv(conn.fd, tail.data(), tail.size(), 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                Doom(conn);
            }
            return;
        }
        if (got == 0) {
            if (conn.reader.Buffered() != 0) {
                QLOG_ERROR("IPC module 0x" << std::hex << conn.moduleId << std::dec
                                           << " left in the middle of a frame");
                Count(&HubCounters::dropped);
            }
            Doom(conn);
            return;
        }
        conn.reader.Commit(static_cast<std::size_t>(got));
        budget -= std::min(budget, static_cast<std::size_t>(got));
        FrameView frame;
        ReadStatus status;
        while ((status = conn.reader.Next(frame)) == ReadStatus::kFrame) {
            Route(conn, frame);
        }
        if (status != ReadStatus::kNeedMore) {
            QLOG_ERROR("IPC module 0x" << std::hex << conn.moduleId << std::dec
                                       << " sent a bad frame: " << ReadStatusText(status));
            Count(&HubCounters::dropped);
            Doom(conn);
            return;
        }
        if (static_cast<std::size_t>(got) < tail.size()) {
            return;  // the socket is drained
        }
    }
}

void IPCMessageServer::Impl::Route(Connection& from, const FrameView& frame) {
    const std::int32_t to = frame.item.toModuleId;
    std::uint64_t delivered = 0;
    if (to == 0) {
        for (auto& [fd, conn] : connections) {
            if (conn.get() != &from && conn->joined && !conn->closing) {
                Enqueue(*conn, frame.raw, frame.rawSize);
                ++delivered;
            }
        }
    } else if (auto found = byModule.find(to); found != byModule.end()) {
        for (Connection* conn : found->second) {
            if (!conn->closing) {
                Enqueue(*conn, frame.raw, frame.rawSize);
                ++delivered;
            }
        }
    }
    if (delivered == 0 && to != 0) {
        Count(&HubCounters::framesUnrouted);
        if (loggedUnknown.size() < kLoggedUnknownIds && loggedUnknown.insert(to).second) {
            QLOG_WARN("IPC frame for unknown module 0x" << std::hex << to << " dropped, message 0x"
                                                        << frame.item.messageId);
        }
        return;
    }
    Count(&HubCounters::framesRouted);
}

void IPCMessageServer::Impl::Enqueue(Connection& to, const std::uint8_t* bytes, std::size_t size) {
    if (to.closing) {
        return;
    }
    if (to.Queued() + size > limits.maxQueuedBytes) {
        QLOG_ERROR("IPC module 0x" << std::hex << to.moduleId << std::dec
                                   << " reads too slowly, dropped with " << to.Queued() << " bytes queued");
        Count(&HubCounters::dropped);
        Doom(to);
        return;
    }
    if (to.outOffset != 0 && to.outOffset >= to.out.size() / 2) {
        to.out.erase(to.out.begin(), to.out.begin() + static_cast<std::ptrdiff_t>(to.outOffset));
        to.outOffset = 0;
    }
    to.out.insert(to.out.end(), bytes, bytes + size);
    if (!to.dirty) {
        to.dirty = true;
        dirty.push_back(&to);
    }
}

void IPCMessageServer::Impl::SetWantWrite(Connection& conn, bool want) {
    if (conn.wantWrite == want) {
        return;
    }
    conn.wantWrite = want;
    epoll_event event{};
    event.events = EPOLLIN | (want ? EPOLLOUT : 0u);
    event.data.fd = conn.fd;
    ::epoll_ctl(epollFd, EPOLL_CTL_MOD, conn.fd, &event);
}

void IPCMessageServer::Impl::Flush(Connection& conn) {
    while (conn.outOffset < conn.out.size()) {
        const ssize_t sent = ::send(conn.fd, conn.out.data() + conn.outOffset,
                                    conn.out.size() - conn.outOffset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                SetWantWrite(conn, true);
            } else {
                Doom(conn);
            }
            return;
        }
        conn.outOffset += static_cast<std::size_t>(sent);
    }
    conn.out.clear();
    conn.outOffset = 0;
    if (conn.out.capacity() > 4 * kReadChunk) {
        std::vector<std::uint8_t>().swap(conn.out);  // give back what a large frame took
    }
    SetWantWrite(conn, false);
}

void IPCMessageServer::Impl::Doom(Connection& conn) {
    if (!conn.closing) {
        conn.closing = true;
        doomed.push_back(&conn);
    }
}

void IPCMessageServer::Impl::CheckHelloTimeouts(Clock::time_point now) {
    for (auto& [fd, conn] : connections) {
        if (!conn->joined && !conn->closing && now >= conn->helloDeadline) {
            QLOG_ERROR("IPC peer sent no HELLO in time: pid=" << conn->peer.pid);
            Count(&HubCounters::dropped);
            Doom(*conn);
        }
    }
}

void IPCMessageServer::Impl::CloseDoomed() {
    for (Connection* conn : doomed) {
        if (conn->joined) {
            auto& peers = byModule[conn->moduleId];
            std::erase(peers, conn);
            if (peers.empty()) {
                byModule.erase(conn->moduleId);
            }
            QLOG_WARN("IPC module left: 0x" << std::hex << conn->moduleId);
        }
        ::epoll_ctl(epollFd, EPOLL_CTL_DEL, conn->fd, nullptr);
        ::close(conn->fd);
        connections.erase(conn->fd);
    }
    doomed.clear();
}
