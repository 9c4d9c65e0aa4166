// The hub beside a plain Unix-socket echo of the same frames, in one run: round-trip latency and
// messages per second with 1 and 8 clients. Both servers are single-threaded epoll loops; a hub client
// addresses its frames to its own module id, so the frame takes the same path as through the echo and
// the difference is what the hub adds (HELLO state, frame parsing, routing, per-connection queues).
// Also: a round trip between two modules, and one through the client library with its callback pool.

#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/ipc_message_client.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/socket_util.h"

using namespace qlb::ipc;

namespace {

constexpr int kPayload = 64;
constexpr int kBatch = 64;

std::filesystem::path g_dir;
std::filesystem::path HubSocket() {
    return g_dir / "hub.sock";
}
std::filesystem::path PlainSocket() {
    return g_dir / "plain.sock";
}

// A plain echo server: every byte read goes straight back.
class PlainEcho {
  public:
    bool Start() {
        listen_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        FillUnixAddress(PlainSocket(), address);
        if (::bind(listen_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listen_, 64) != 0) {
            return false;
        }
        epoll_ = ::epoll_create1(0);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = listen_;
        ::epoll_ctl(epoll_, EPOLL_CTL_ADD, listen_, &event);
        thread_ = std::thread([this] { Run(); });
        return true;
    }
    void Stop() {
        running_ = false;
        ::shutdown(listen_, SHUT_RDWR);
        ::close(::socket(AF_UNIX, SOCK_STREAM, 0));
        if (thread_.joinable()) {
            thread_.join();
        }
    }

  private:
    void Run() {
        std::vector<epoll_event> events(64);
        std::vector<std::uint8_t> buffer(256 * 1024);
        while (running_) {
            const int count = ::epoll_wait(epoll_, events.data(), 64, 100);
            for (int i = 0; i < count; ++i) {
                const int fd = events[static_cast<std::size_t>(i)].data.fd;
                if (fd == listen_) {
                    for (int client; (client = ::accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) {
                        epoll_event event{};
                        event.events = EPOLLIN;
                        event.data.fd = client;
                        ::epoll_ctl(epoll_, EPOLL_CTL_ADD, client, &event);
                    }
                    continue;
                }
                const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
                if (got <= 0) {
                    ::close(fd);
                    continue;
                }
                std::size_t sent = 0;
                while (sent < static_cast<std::size_t>(got)) {
                    const ssize_t n =
                        ::send(fd, buffer.data() + sent, static_cast<std::size_t>(got) - sent, MSG_NOSIGNAL);
                    if (n <= 0) {
                        break;
                    }
                    sent += static_cast<std::size_t>(n);
                }
            }
        }
    }

    int listen_ = -1;
    int epoll_ = -1;
    std::thread thread_;
    std::atomic<bool> running_{true};
};

IPCMessageServer* g_hub = nullptr;
PlainEcho* g_plain = nullptr;

// A blocking client speaking the wire format by hand.
class RawClient {
  public:
    RawClient(const std::filesystem::path& socket, int moduleId, bool hello) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        FillUnixAddress(socket, address);
        ok_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        if (ok_ && hello) {
            const auto bytes = EncodeHello(Hello{kHelloMagic, kProtocolVersion, moduleId});
            std::uint8_t reply[kHelloSize];
            ok_ = Send(bytes.data(), bytes.size()) && Read(reply, sizeof(reply)) && GetU32(reply + 8) == 0;
        }
    }
    ~RawClient() { ::close(fd_); }
    bool ok() const { return ok_; }
    bool Send(const std::uint8_t* bytes, std::size_t size) {
        return ::send(fd_, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    bool Read(std::uint8_t* out, std::size_t size) {
        for (std::size_t got = 0; got < size;) {
            const ssize_t n = ::recv(fd_, out + got, size - got, 0);
            if (n <= 0) {
                return false;
            }
            got += static_cast<std::size_t>(n);
        }
        return true;
    }

  private:
    int fd_ = -1;
    bool ok_ = false;
};

std::vector<std::uint8_t> Frames(int to, int from, int count) {
    std::vector<std::uint8_t> payload(kPayload, 0x5A);
    TagIPCMessageItem item;
    item.toModuleId = to;
    item.fromModuleId = from;
    item.messageId = 0x30073;
    item.dataLength = kPayload;
    item.data = payload.data();
    std::vector<std::uint8_t> bytes;
    for (int i = 0; i < count; ++i) {
        const auto frame = EncodeFrame(item);
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    return bytes;
}

int ModuleFor(const benchmark::State& state) {
    return 0x1000000 + (state.thread_index() << 16);
}

// One frame out and back per iteration.
void RoundTrip(benchmark::State& state, bool throughHub) {
    const int module = ModuleFor(state);
    RawClient client(throughHub ? HubSocket() : PlainSocket(), module, throughHub);
    if (!client.ok()) {
        state.SkipWithError("connect failed");
        return;
    }
    auto frame = Frames(module, module, 1);
    std::vector<std::uint8_t> back(frame.size());
    for (auto _ : state) {
        if (!client.Send(frame.data(), frame.size()) || !client.Read(back.data(), back.size())) {
            state.SkipWithError("round trip failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// A batch of frames out, then all of them back, per iteration: messages per second.
void Throughput(benchmark::State& state, bool throughHub) {
    const int module = ModuleFor(state);
    RawClient client(throughHub ? HubSocket() : PlainSocket(), module, throughHub);
    if (!client.ok()) {
        state.SkipWithError("connect failed");
        return;
    }
    auto frames = Frames(module, module, kBatch);
    std::vector<std::uint8_t> back(frames.size());
    for (auto _ : state) {
        if (!client.Send(frames.data(), frames.size()) || !client.Read(back.data(), back.size())) {
            state.SkipWithError("batch failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_PlainSocket_RoundTrip(benchmark::State& state) {
    RoundTrip(state, false);
}
void BM_Hub_RoundTrip(benchmark::State& state) {
    RoundTrip(state, true);
}
void BM_PlainSocket_Messages(benchmark::State& state) {
    Throughput(state, false);
}
void BM_Hub_Messages(benchmark::State& state) {
    Throughput(state, true);
}

// Module A asks module B, whose thread answers, through the hub.
void BM_Hub_RoundTripBetweenTwoModules(benchmark::State& state) {
    RawClient asker(HubSocket(), 0x2000000, true);
    RawClient answerer(HubSocket(), 0x2010000, true);
    auto request = Frames(0x2010000, 0x2000000, 1);
    auto answer = Frames(0x2000000, 0x2010000, 1);
    std::atomic<bool> done{false};
    std::thread echo([&] {
        std::vector<std::uint8_t> in(request.size());
        while (answerer.Read(in.data(), in.size()) && !done) {
            answerer.Send(answer.data(), answer.size());
        }
    });
    std::vector<std::uint8_t> back(answer.size());
    for (auto _ : state) {
        asker.Send(request.data(), request.size());
        asker.Read(back.data(), back.size());
    }
    done = true;
    asker.Send(request.data(), request.size());  // wakes the answerer for its last read
    echo.join();
    state.SetItemsProcessed(state.iterations());
}

// The client library end to end: PostIPCMessage to itself, answered through its callback pool.
void BM_ClientLibrary_RoundTrip(benchmark::State& state) {
    IPCMessageClient client(0x3000000, HubSocket());
    std::mutex mutex;
    std::condition_variable cv;
    std::uint64_t received = 0;
    client.RegisterMessageCallback(0x30073, [&](TagIPCMessageItem&) {
        std::lock_guard<std::mutex> lock(mutex);
        ++received;
        cv.notify_one();
    });
    if (!client.WaitJoined(std::chrono::seconds(10))) {
        state.SkipWithError("not joined");
        return;
    }
    std::vector<std::uint8_t> payload(kPayload, 0x5A);
    TagIPCMessageItem item;
    item.toModuleId = 0x3000000;
    item.fromModuleId = 0x3000000;
    item.messageId = 0x30073;
    item.dataLength = kPayload;
    item.data = payload.data();
    std::uint64_t sent = 0;
    for (auto _ : state) {
        client.PostIPCMessage(item);
        ++sent;
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return received >= sent; });
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_PlainSocket_RoundTrip)->UseRealTime();
BENCHMARK(BM_Hub_RoundTrip)->UseRealTime();
BENCHMARK(BM_Hub_RoundTripBetweenTwoModules)->UseRealTime();
BENCHMARK(BM_ClientLibrary_RoundTrip)->UseRealTime();
BENCHMARK(BM_PlainSocket_Messages)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(BM_Hub_Messages)->Threads(1)->Threads(8)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    char pattern[] = "/tmp/qlb-ipc-bench-XXXXXX";
    g_dir = ::mkdtemp(pattern);
    IPCMessageServer hub(HubSocket(), PeerPolicy({::getuid()}, {}));
    PlainEcho plain;
    if (!hub.Start() || !plain.Start()) {
        return 1;
    }
    g_hub = &hub;
    g_plain = &plain;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    plain.Stop();
    hub.Stop();
    std::error_code ec;
    std::filesystem::remove_all(g_dir, ec);
    return 0;
}
