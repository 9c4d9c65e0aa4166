#pragma once
// Helpers of the IPC and qlbctl tests: the message ids the ipc_test_peer program understands, an inbox
// that collects what a client receives, and items made in one call.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "runtime/ipc/ipc_message_client.h"

namespace qlb::ipc::test {

// Test-only message ids understood by ipc_test_peer.
inline constexpr int kMsgBlock = 0x7001;    // blocks until kMsgRelease arrives, then answers
inline constexpr int kMsgFast = 0x7002;     // answered at once
inline constexpr int kMsgRelease = 0x7003;  // frees the blocked handler
inline constexpr int kMsgThrow = 0x7004;    // the handler throws

inline constexpr auto kWait = std::chrono::seconds(20);

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
    // Waits for an item of `messageId` and takes it out.
    bool Take(int messageId, Received& out) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, kWait, [&] {
            for (auto it = items_.begin(); it != items_.end(); ++it) {
                if (it->header.messageId == messageId) {
                    out = std::move(*it);
                    items_.erase(it);
                    return true;
                }
            }
            return false;
        });
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
