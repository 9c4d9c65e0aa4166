#pragma once
// IPCMessageClient: one module's place on the IPC channel.
//
// The client connects lazily and keeps trying with a growing pause (up to half a second) until the hub
// is there, so it can be built before the hub starts; after a disconnection it joins again with a new
// HELLO. PostIPCMessage copies the frame before it returns and queues it while the hub is away.
//
// Callbacks run on a pool of worker threads that grows whenever every worker is busy, so a handler that
// blocks for minutes delays no other message. Messages start in the order they arrived; two messages
// of the same id may run at the same time, so callbacks must be safe to run concurrently. An exception
// that escapes a callback is logged and the process goes on.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "runtime/ipc/ipc_message_item.h"

namespace qlb::ipc {

struct ClientOptions {
    // Keep rejoining when the hub goes away or is not there yet; without it the client tries once.
    bool reconnect = true;
    // Join right away. Without it the client waits for Connect(), so that a module can register its
    // callbacks before anything addressed to it can arrive.
    bool connectOnStart = true;
    // Bytes queued for the hub before PostIPCMessage refuses.
    std::size_t maxQueuedBytes = 64u * 1024 * 1024;
    // Callback workers beyond which messages wait for a free one.
    std::size_t maxWorkers = 256;
    std::chrono::milliseconds firstRetryDelay{50};
    std::chrono::milliseconds maxRetryDelay{500};  // short: the service joins soon after its own hub starts
};

class ClientCore;

}  // namespace qlb::ipc

class IPCMessageClient {
  public:
    using Callback = std::function<void(TagIPCMessageItem&)>;

    // Joins the channel of the machine profile as `moduleId`. `reconnect`: keep rejoining; `waitJoined`:
    // wait up to five seconds in the constructor for the first join.
    IPCMessageClient(int moduleId, bool reconnect, bool waitJoined);
    // The same on an explicit socket (tests and tools).
    IPCMessageClient(int moduleId, const std::filesystem::path& socketPath,
                     qlb::ipc::ClientOptions options = {});
    ~IPCMessageClient();
    IPCMessageClient(const IPCMessageClient&) = delete;
    IPCMessageClient& operator=(const IPCMessageClient&) = delete;

    // Queues or sends a copy of the item; false when it is malformed (negative or above 16 MiB of
    // data, null data with a length), the queue is full, or the client has given up on the hub.
    bool PostIPCMessage(const TagIPCMessageItem& item) const;

    // A later registration for the same id replaces the former.
    template <typename Method, typename Object>
    void RegisterMessageCallback(int messageId, Method method, Object* object) {
        std::lock_guard<std::mutex> lock(mutex_);
        callbacks_[messageId] = std::bind(method, object, std::placeholders::_1);
    }
    void RegisterMessageCallback(int messageId, Callback callback);
    // True when there was a callback to remove.
    bool UnRegisterMessageCallback(int messageId);
    // Runs for frames whose id has no callback (tools that watch all traffic).
    void SetDefaultCallback(Callback callback);

    // Starts joining a client made with connectOnStart false; nothing for one that already does.
    void Connect();

    int ModuleId() const noexcept;
    bool IsJoined() const;
    // Waits until the client has joined, up to `timeout`.
    bool WaitJoined(std::chrono::milliseconds timeout) const;
    // Waits until every posted frame has been handed to the hub's socket, up to `timeout` (tools that
    // exit right after posting).
    bool WaitIdle(std::chrono::milliseconds timeout) const;
    // The status of the last refused HELLO (an errno), 0 if none was refused.
    int LastRefusal() const;

  private:
    friend class qlb::ipc::ClientCore;
    // The callable for an incoming message id, or an empty one.
    Callback FindCallback(int messageId);

    std::mutex mutex_;
    std::map<int, Callback> callbacks_;
    Callback defaultCallback_;
    std::unique_ptr<qlb::ipc::ClientCore> core_;
};
