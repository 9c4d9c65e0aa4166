#pragma once
// IPCMessageServer: the hub of the IPC channel. It listens on runDir/ipc.sock; every module, the
// service's own client included, joins it with a HELLO and exchanges frames through it.
//
// Routing: toModuleId 0 goes to every other joined connection, any other id to every connection that
// joined with that id; an unknown id is dropped. No field of a frame is changed on the way. One thread
// runs the hub over epoll with non-blocking sockets; frames from one connection reach each destination
// in the order they were sent.
//
// Bad peers end only their own connection: a frame that lies about its length or carries more than
// 16 MiB, a HELLO that does not come in time, a peer the allow policy refuses (its HELLO is answered
// with EACCES), a reader so slow that its queue passes the limit.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "runtime/ipc/peer_policy.h"

namespace qlb::ipc {

struct HubLimits {
    std::size_t maxConnections = 256;
    // Bytes waiting for one reader before it is dropped; always room for one frame of the largest size.
    std::size_t maxQueuedBytes = 48u * 1024 * 1024;
    std::chrono::milliseconds helloTimeout{5000};
};

struct HubCounters {
    std::uint64_t joined = 0;
    std::uint64_t refused = 0;
    std::uint64_t dropped = 0;  // connections ended for a fault of theirs
    std::uint64_t framesRouted = 0;
    std::uint64_t framesUnrouted = 0;
};

// The socket of the profile: runDir/ipc.sock.
std::filesystem::path DefaultSocketPath();

}  // namespace qlb::ipc

class IPCMessageServer {
  public:
    // The socket and allow policy of the machine profile.
    IPCMessageServer();
    IPCMessageServer(std::filesystem::path socketPath, qlb::ipc::PeerPolicy policy,
                     qlb::ipc::HubLimits limits = {});
    ~IPCMessageServer();
    IPCMessageServer(const IPCMessageServer&) = delete;
    IPCMessageServer& operator=(const IPCMessageServer&) = delete;

    // Binds and starts the hub thread. False (with a log line) when the socket cannot be made or
    // another hub already answers on it.
    bool Start();
    // Closes every connection and removes the socket. Safe to call again, and without Start.
    void Stop();

    const std::filesystem::path& SocketPath() const noexcept;
    qlb::ipc::HubCounters Counters() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
