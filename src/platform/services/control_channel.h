#pragma once
// Control delivery between the embedded manager and a service process: one Unix stream connection per
// control on runDir/services/<name>.sock. The sender writes a request, the service runs its handler and
// answers with the error number and the status that followed, then closes.
//
//   request: u32 magic "QSVC", u32 control, u32 eventType, u32 sessionId        (16 bytes)
//   reply:   u32 magic "QSVR", u32 error, 7 x u32 SERVICE_STATUS fields         (36 bytes)
// Integers are little-endian.

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>

#include "platform/services/service_control.h"

namespace qlb::platform {

inline constexpr std::uint32_t kControlRequestMagic = 0x43565351;  // "QSVC"
inline constexpr std::uint32_t kControlReplyMagic = 0x52565351;    // "QSVR"
inline constexpr std::size_t kControlRequestSize = 16;
inline constexpr std::size_t kControlReplySize = 36;

std::array<std::uint8_t, kControlRequestSize> EncodeControlRequest(const ControlRequest& request);
std::optional<ControlRequest> DecodeControlRequest(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, kControlReplySize> EncodeControlReply(const SysResult<SERVICE_STATUS>& reply);
std::optional<SysResult<SERVICE_STATUS>> DecodeControlReply(std::span<const std::uint8_t> bytes);

// Sends one control and waits for the reply. No listener: 1062 (the service does not run); no reply
// within `timeoutMs`: 1053.
SysResult<SERVICE_STATUS> SendControl(const std::filesystem::path& socket, const ControlRequest& request,
                                      int timeoutMs);

// The service side: a listening socket that hands one connection at a time to the caller.
class ControlListener {
  public:
    ControlListener() = default;
    ControlListener(const ControlListener&) = delete;
    ControlListener& operator=(const ControlListener&) = delete;
    ~ControlListener();

    SysStatus Listen(const std::filesystem::path& socket);
    // Serves until Stop(); each request is answered with what `deliver` returns.
    void Serve(const ServiceProcessHost::Deliver& deliver);
    // Callable from any thread, also once Serve has returned.
    void Stop();
    // Stops listening and removes the socket; the wake-up pipe stays for a late Stop.
    void CloseListening();
    void Close();

  private:
    std::filesystem::path path_;
    unsigned long boundInode_ = 0;  // ours to unlink only while the path still names our socket
    int listenFd_ = -1;
    int wakeRead_ = -1;
    int wakeWrite_ = -1;
};

}  // namespace qlb::platform
