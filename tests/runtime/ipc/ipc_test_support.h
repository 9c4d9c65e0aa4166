#pragma once
// Helpers of the IPC tests: a temporary directory, an inbox that collects what a client receives, and
// module processes started from the ipc_test_peer program.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/ipc/ipc_message_client.h"

extern char** environ;

namespace qlb::ipc::test {

// Test-only message ids understood by ipc_test_peer.
inline constexpr int kMsgBlock = 0x7001;            // blocks until kMsgRelease arrives, then answers
inline constexpr int kMsgFast = 0x7002;             // answered at once
inline constexpr int kMsgRelease = 0x7003;          // frees the blocked handler
inline constexpr int kMsgThrow = 0x7004;            // the handler throws
inline constexpr std::size_t kEchoHeaderSize = 29;  // the echo's copy of the header fields

inline constexpr auto kWait = std::chrono::seconds(20);

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qlbipcXXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

struct Received {
    TagIPCMessageItem header;
    std::vector<std::uint8_t> data;
};

// Collects everything a client is handed.
class Inbox {
  public:
    void Attach(IPCMessageClient& client) {
        client.SetDefaultCallback([this](TagIPCMessageItem& item) { Add(item); });
    }
    void Add(const TagIPCMessageItem& item) {
        std::lock_guard<std::mutex> lock(mutex_);
        Received received{item, {item.data, item.data + item.dataLength}};
        received.header.data = nullptr;
        items_.push_back(std::move(received));
        cv_.notify_all();
    }
    // Waits until `count` items are in, up to the test wait.
    bool WaitCount(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, kWait, [&] { return items_.size() >= count; });
    }
    // Waits for an item of `messageId` and takes it out.
    bool Take(int messageId, Received& out) {
        std::unique_lock<std::mutex> lock(mutex_);
        bool found = false;
        cv_.wait_for(lock, kWait, [&] {
            for (auto it = items_.begin(); it != items_.end(); ++it) {
                if (it->header.messageId == messageId) {
                    out = std::move(*it);
                    items_.erase(it);
                    found = true;
                    return true;
                }
            }
            return false;
        });
        return found;
    }
    std::size_t Size() {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_.size();
    }
    std::vector<Received> All() {
        std::lock_guard<std::mutex> lock(mutex_);
        return {items_.begin(), items_.end()};
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Received> items_;
};

// A module in a process of its own; killed and reaped when it goes out of scope.
class PeerProcess {
  public:
    PeerProcess(const std::filesystem::path& socket, int moduleId, const std::string& mode) {
        const std::string program = IPC_TEST_PEER;
        const std::string module = std::to_string(moduleId);
        const std::string socketText = socket.string();
        char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>(socketText.c_str()),
                        const_cast<char*>(module.c_str()), const_cast<char*>(mode.c_str()), nullptr};
        if (::posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argv, environ) != 0) {
            pid_ = -1;
        }
    }
    ~PeerProcess() {
        if (pid_ > 0 && !exited_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool started() const { return pid_ > 0; }
    // The exit status, waiting up to the test wait; -1 if it did not end.
    int WaitExit() {
        const auto deadline = std::chrono::steady_clock::now() + kWait;
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            const pid_t done = ::waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                exited_ = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

  private:
    pid_t pid_ = -1;
    bool exited_ = false;
};

inline TagIPCMessageItem MakeItem(int to, int from, int messageId, const void* data = nullptr,
                                  int length = 0) {
    TagIPCMessageItem item;
    item.toModuleId = to;
    item.fromModuleId = from;
    item.messageId = messageId;
    item.data = static_cast<unsigned char*>(const_cast<void*>(data));
    item.dataLength = length;
    return item;
}

}  // namespace qlb::ipc::test
