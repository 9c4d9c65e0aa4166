#include "runtime/ipc/ipc_message_client.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <thread>
#include <vector>

#include "runtime/common/logging.h"
#include "runtime/ipc/callback_pool.h"
#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/socket_util.h"

namespace qlb::ipc {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
constexpr int kMaxIovecs = 64;
constexpr auto kConstructorJoinWait = std::chrono::seconds(5);
constexpr auto kReplyTimeout = std::chrono::seconds(5);

enum class LinkState { kDisconnected, kAwaitingReply, kJoined, kClosed };

}  // namespace

// The connection and its I/O thread. Writes happen under sendMutex, from the posting thread when the
// queue is empty (the common, fast case) and from the I/O thread otherwise.
class ClientCore {
  public:
    ClientCore(IPCMessageClient& owner, int moduleId, std::filesystem::path path, ClientOptions options)
        : owner_(owner),
          moduleId_(moduleId),
          path_(std::move(path)),
          options_(options),
          pool_(options.maxWorkers),
          retryDelay_(options.firstRetryDelay) {
        epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
        wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = wakeFd_;
        ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event);
        if (!options.connectOnStart) {
            nextAttempt_ = kNever;
        }
        thread_ = std::thread([this] { Run(); });
    }

    ~ClientCore() {
        Shutdown();
        ::close(epollFd_);
        ::close(wakeFd_);
    }

    // Leaves the channel and lets running callbacks finish. The core stays usable meanwhile: a
    // callback that posts during the shutdown is refused, not crashed.
    void Shutdown() {
        stopping_ = true;
        Wake();
        if (thread_.joinable()) {
            thread_.join();
        }
        CloseSocket();
        {
            std::lock_guard<std::mutex> lock(sendMutex_);
            state_ = LinkState::kClosed;
            outFrames_.clear();
            queuedBytes_ = 0;
            joinedCv_.notify_all();
            idleCv_.notify_all();
        }
        pool_.Shutdown();
    }

    bool Post(const TagIPCMessageItem& item) {
        if (!IsSendable(item)) {
            return false;
        }
        std::vector<std::uint8_t> frame = EncodeFrame(item);
        std::lock_guard<std::mutex> lock(sendMutex_);
        if (state_ == LinkState::kClosed) {
            return false;
        }
        if (queuedBytes_ + frame.size() > options_.maxQueuedBytes) {
            QLOG_ERROR("IPC queue full, message 0x" << std::hex << item.messageId << " not posted");
            return false;
        }
        if (state_ == LinkState::kJoined && outFrames_.empty()) {
            const ssize_t sent = ::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent == static_cast<ssize_t>(frame.size())) {
                return true;
            }
            frontOffset_ = sent > 0 ? static_cast<std::size_t>(sent) : 0;
        }
        queuedBytes_ += frame.size();
        outFrames_.push_back(std::move(frame));
        if (outFrames_.size() == 1) {
            Wake();  // the I/O thread takes over the rest once the socket has room
        }
        return true;
    }

    bool IsJoined() {
        std::lock_guard<std::mutex> lock(sendMutex_);
        return state_ == LinkState::kJoined;
    }

    bool WaitJoined(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(sendMutex_);
        return joinedCv_.wait_for(lock, timeout, [&] {
            return state_ == LinkState::kJoined || state_ == LinkState::kClosed;
        }) && state_ == LinkState::kJoined;
    }

    bool WaitIdle(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(sendMutex_);
        return idleCv_.wait_for(lock, timeout, [&] { return outFrames_.empty(); });
    }

    void Connect() {
        connectRequested_ = true;
        Wake();
    }

    int LastRefusal() const { return lastRefusal_; }
    int ModuleId() const noexcept { return moduleId_; }

  private:
    void Wake() {
        const std::uint64_t one = 1;
        [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof(one));
    }

    static int MillisecondsUntil(std::chrono::steady_clock::time_point when,
                                 std::chrono::steady_clock::time_point now) {
        return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(when - now).count()) +
               1;
    }

    void Run() {
        std::vector<epoll_event> events(8);
        while (!stopping_) {
            int timeout = -1;
            LinkState state;
            {
                std::lock_guard<std::mutex> lock(sendMutex_);
                state = state_;
            }
            if (state == LinkState::kDisconnected) {
                const auto now = std::chrono::steady_clock::now();
                if (connectRequested_.exchange(false)) {
                    nextAttempt_ = now;
                }
                if (nextAttempt_ == kNever) {
                    timeout = -1;  // waiting for Connect()
                } else if (now >= nextAttempt_) {
                    TryConnect();
                    continue;
                } else {
                    timeout = MillisecondsUntil(nextAttempt_, now);
                }
            } else if (state == LinkState::kAwaitingReply) {
                // A hub that takes the connection and never answers the HELLO is given up on like one
                // that is not there.
                const auto now = std::chrono::steady_clock::now();
                if (now >= replyDeadline_) {
                    QLOG_ERROR("IPC hub did not answer the HELLO of module 0x" << std::hex << moduleId_);
                    CloseSocket();
                    ScheduleRetry();
                    continue;
                }
                timeout = MillisecondsUntil(replyDeadline_, now);
            }
            const int count = ::epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), timeout);
            for (int i = 0; i < count && !stopping_; ++i) {
                const auto& event = events[static_cast<std::size_t>(i)];
                if (event.data.fd == wakeFd_) {
                    std::uint64_t value = 0;
                    [[maybe_unused]] ssize_t got = ::read(wakeFd_, &value, sizeof(value));
                    FlushFromIoThread();
                    continue;
                }
                if (event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                    OnReadable();
                }
                if (event.events & EPOLLOUT) {
                    FlushFromIoThread();
                }
            }
        }
    }

    void TryConnect() {
        sockaddr_un address{};
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        bool connected = fd >= 0 && FillUnixAddress(path_, address) &&
                         ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        if (connected) {
            const auto hello = EncodeHello(Hello{kHelloMagic, kProtocolVersion, moduleId_});
            connected =
                ::send(fd, hello.data(), hello.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(hello.size());
        }
        if (!connected) {
            const int error = errno;
            if (fd >= 0) {
                ::close(fd);
            }
            if (!loggedConnectFailure_) {
                loggedConnectFailure_ = true;
                QLOG_WARN("IPC hub not reachable at " << path_.string() << ", errno=" << error
                                                      << (options_.reconnect ? "; retrying" : ""));
            }
            ScheduleRetry();
            return;
        }
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event);
        std::lock_guard<std::mutex> lock(sendMutex_);
        fd_ = fd;
        wantWrite_ = false;
        replyBytes_ = 0;
        replyDeadline_ = std::chrono::steady_clock::now() + kReplyTimeout;
        state_ = LinkState::kAwaitingReply;
    }

    void ScheduleRetry() {
        std::lock_guard<std::mutex> lock(sendMutex_);
        if (!options_.reconnect || stopping_) {
            state_ = LinkState::kClosed;
            queuedBytes_ = 0;
            outFrames_.clear();
            joinedCv_.notify_all();
            idleCv_.notify_all();
            return;
        }
        state_ = LinkState::kDisconnected;
        nextAttempt_ = std::chrono::steady_clock::now() + retryDelay_;
        retryDelay_ = std::min(retryDelay_ * 2, options_.maxRetryDelay);
    }

    void CloseSocket() {
        std::lock_guard<std::mutex> lock(sendMutex_);
        if (fd_ >= 0) {
            ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd_, nullptr);
            ::close(fd_);
            fd_ = -1;
        }
        // A frame cut off on the old connection is lost on the hub's side as well; the rest go out on
        // the next one.
        if (frontOffset_ != 0 && !outFrames_.empty()) {
            queuedBytes_ -= outFrames_.front().size();
            outFrames_.pop_front();
        }
        frontOffset_ = 0;
        reader_ = FrameReader();
    }

    void Disconnect(const char* why) {
        bool wasJoined = false;
        {
            std::lock_guard<std::mutex> lock(sendMutex_);
            wasJoined = state_ == LinkState::kJoined;
        }
        if (wasJoined) {
            QLOG_WARN("IPC connection of module 0x" << std::hex << moduleId_ << std::dec << " lost: " << why);
        }
        CloseSocket();
        ScheduleRetry();
    }

    void OnReadable() {
        LinkState state;
        {
            std::lock_guard<std::mutex> lock(sendMutex_);
            state = state_;
        }
        if (state == LinkState::kAwaitingReply) {
            ReadReply();
            return;
        }
        for (;;) {
            auto tail = reader_.WritableTail(kReadChunk);
            const ssize_t got = ::recv(fd_, tail.data(), tail.size(), 0);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                return;
            }
            if (got <= 0) {
                Disconnect(got == 0 ? "closed by the hub" : "read failed");
                return;
            }
            reader_.Commit(static_cast<std::size_t>(got));
            FrameView frame;
            ReadStatus status;
            while ((status = reader_.Next(frame)) == ReadStatus::kFrame) {
                Dispatch(frame.item);
            }
            if (status != ReadStatus::kNeedMore) {
                QLOG_ERROR("IPC bad frame from the hub: " << ReadStatusText(status));
                Disconnect("bad frame");
                return;
            }
            if (static_cast<std::size_t>(got) < tail.size()) {
                return;
            }
        }
    }

    void ReadReply() {
        const ssize_t got = ::recv(fd_, reply_ + replyBytes_, kHelloSize - replyBytes_, 0);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            return;
        }
        if (got <= 0) {
            Disconnect("closed during HELLO");
            return;
        }
        replyBytes_ += static_cast<std::size_t>(got);
        if (replyBytes_ < kHelloSize) {
            return;
        }
        const Hello reply = DecodeHello(std::span<const std::uint8_t, kHelloSize>(reply_, kHelloSize));
        if (reply.magic != kHelloMagic || reply.value != 0) {
            const int status = reply.magic != kHelloMagic ? EPROTO : reply.value;
            if (lastRefusal_ != status) {
                QLOG_ERROR("IPC hub refused module 0x" << std::hex << moduleId_ << std::dec
                                                       << ", status=" << status);
            }
            lastRefusal_ = status;
            CloseSocket();
            ScheduleRetry();
            return;
        }
        lastRefusal_ = 0;
        loggedConnectFailure_ = false;
        {
            std::lock_guard<std::mutex> lock(sendMutex_);
            state_ = LinkState::kJoined;
            retryDelay_ = options_.firstRetryDelay;
            joinedCv_.notify_all();
        }
        FlushFromIoThread();
    }

    void Dispatch(const TagIPCMessageItem& header) {
        IPCMessageClient::Callback callback = owner_.FindCallback(header.messageId);
        if (!callback) {
            return;
        }
        std::vector<std::uint8_t> data(header.data, header.data + header.dataLength);
        TagIPCMessageItem item = header;
        pool_.Submit(
            [callback = std::move(callback), item, data = std::move(data)]() mutable {
                item.data = data.empty() ? nullptr : data.data();
                callback(item);
            },
            header.messageId);
    }

    void FlushFromIoThread() {
        std::lock_guard<std::mutex> lock(sendMutex_);
        if (state_ != LinkState::kJoined) {
            return;
        }
        while (!outFrames_.empty()) {
            iovec vectors[kMaxIovecs];
            int count = 0;
            for (auto it = outFrames_.begin(); it != outFrames_.end() && count < kMaxIovecs; ++it, ++count) {
                const std::size_t skip = count == 0 ? frontOffset_ : 0;
                vectors[count].iov_base = it->data() + skip;
                vectors[count].iov_len = it->size() - skip;
            }
            msghdr message{};
            message.msg_iov = vectors;
            message.msg_iovlen = static_cast<std::size_t>(count);
            ssize_t sent = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0) {
                if (errno == EINTR) {
                    continue;
                }
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    SetWantWrite(true);
                }
                return;  // a broken socket shows up as readable and is handled there
            }
            while (sent > 0) {
                const std::size_t left = outFrames_.front().size() - frontOffset_;
                if (static_cast<std::size_t>(sent) < left) {
                    frontOffset_ += static_cast<std::size_t>(sent);
                    break;
                }
                sent -= static_cast<ssize_t>(left);
                queuedBytes_ -= outFrames_.front().size();
                outFrames_.pop_front();
                frontOffset_ = 0;
            }
        }
        idleCv_.notify_all();
        SetWantWrite(false);
    }

    void SetWantWrite(bool want) {
        if (wantWrite_ == want || fd_ < 0) {
            return;
        }
        wantWrite_ = want;
        epoll_event event{};
        event.events = EPOLLIN | (want ? EPOLLOUT : 0u);
        event.data.fd = fd_;
        ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd_, &event);
    }

    IPCMessageClient& owner_;
    const int moduleId_;
    const std::filesystem::path path_;
    const ClientOptions options_;
    CallbackPool pool_;

    int epollFd_ = -1;
    int wakeFd_ = -1;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    // Guarded by sendMutex_.
    std::mutex sendMutex_;
    std::condition_variable joinedCv_;
    std::condition_variable idleCv_;
    LinkState state_ = LinkState::kDisconnected;
    int fd_ = -1;
    bool wantWrite_ = false;
    std::deque<std::vector<std::uint8_t>> outFrames_;
    std::size_t frontOffset_ = 0;
    std::size_t queuedBytes_ = 0;

    // I/O thread only.
    FrameReader reader_;
    std::uint8_t reply_[kHelloSize] = {};
    std::size_t replyBytes_ = 0;
    static constexpr std::chrono::steady_clock::time_point kNever =
        std::chrono::steady_clock::time_point::max();
    std::chrono::steady_clock::time_point nextAttempt_{};
    std::atomic<bool> connectRequested_{false};
    std::chrono::steady_clock::time_point replyDeadline_{};
    std::chrono::milliseconds retryDelay_;
    bool loggedConnectFailure_ = false;
    std::atomic<int> lastRefusal_{0};
};

}  // namespace qlb::ipc

using qlb::ipc::ClientCore;
using qlb::ipc::ClientOptions;

IPCMessageClient::IPCMessageClient(int moduleId, bool reconnect, bool waitJoined) {
    ClientOptions options;
    options.reconnect = reconnect;
    core_ = std::make_unique<ClientCore>(*this, moduleId, qlb::ipc::DefaultSocketPath(), options);
    if (waitJoined) {
        core_->WaitJoined(qlb::ipc::kConstructorJoinWait);
    }
}

IPCMessageClient::IPCMessageClient(int moduleId, const std::filesystem::path& socketPath,
                                   ClientOptions options)
    : core_(std::make_unique<ClientCore>(*this, moduleId, socketPath, options)) {}

// The core outlives its shutdown, so that a callback still running may post (and be refused).
IPCMessageClient::~IPCMessageClient() {
    core_->Shutdown();
}

bool IPCMessageClient::PostIPCMessage(const TagIPCMessageItem& item) const {
    return core_->Post(item);
}

void IPCMessageClient::RegisterMessageCallback(int messageId, Callback callback) {
    std::lock_guard<std::mutex> lock(mutex_);
    callbacks_[messageId] = std::move(callback);
}

bool IPCMessageClient::UnRegisterMessageCallback(int messageId) {
    std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_.erase(messageId) != 0;
}

void IPCMessageClient::SetDefaultCallback(Callback callback) {
    std::lock_guard<std::mutex> lock(mutex_);
    defaultCallback_ = std::move(callback);
}

IPCMessageClient::Callback IPCMessageClient::FindCallback(int messageId) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = callbacks_.find(messageId);
    return found != callbacks_.end() ? found->second : defaultCallback_;
}

void IPCMessageClient::Connect() {
    core_->Connect();
}

int IPCMessageClient::ModuleId() const noexcept {
    return core_->ModuleId();
}
bool IPCMessageClient::IsJoined() const {
    return core_->IsJoined();
}
bool IPCMessageClient::WaitJoined(std::chrono::milliseconds timeout) const {
    return core_->WaitJoined(timeout);
}
bool IPCMessageClient::WaitIdle(std::chrono::milliseconds timeout) const {
    return core_->WaitIdle(timeout);
}
int IPCMessageClient::LastRefusal() const {
    return core_->LastRefusal();
}
