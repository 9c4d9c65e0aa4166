#pragma once
// The sessions of the machine as the service sees them: which session is at the console and who is
// logged on in it. Sources: the machine profile and the last logon or unlock control (embedded), or
// logind, which a later backend reads.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "runtime/common/result.h"
#include "runtime/common/win_types.h"

namespace qlb {
struct MachineProfile;
}

namespace qlb::platform {

// What WTSGetActiveConsoleSessionId gives when no session is attached to the console.
inline constexpr DWORD kNoConsoleSession = 0xFFFFFFFF;

class SessionSource {
  public:
    virtual ~SessionSource() = default;
    virtual DWORD ActiveConsoleSessionId() = 0;
    // The user name logged on in the session; nothing for a session without a user.
    virtual std::optional<std::string> UserOfSession(DWORD sessionId) = 0;
    // Records that `sessionId` took the console (a logon or an unlock).
    virtual SysStatus SetActiveSession(DWORD sessionId) = 0;
};

// The profile's sessions and activeSession, overridden by runDir/sessions/active, which every process
// of the product reads, so all of them see the same console session.
class EmbeddedSessionSource final : public SessionSource {
  public:
    explicit EmbeddedSessionSource(const MachineProfile& profile);
    DWORD ActiveConsoleSessionId() override;
    std::optional<std::string> UserOfSession(DWORD sessionId) override;
    SysStatus SetActiveSession(DWORD sessionId) override;

    std::filesystem::path ActiveFile() const { return activeFile_; }

  private:
    std::filesystem::path activeFile_;
    std::optional<DWORD> profileActive_;
    std::map<std::uint32_t, std::string> sessions_;
};

std::unique_ptr<SessionSource> MakeSessionSource(const MachineProfile& profile);

// The process-wide source behind WTSGetActiveConsoleSessionId (made from the current profile on first
// use); tests put their own in place.
SessionSource& CurrentSessionSource();
void SetCurrentSessionSource(std::unique_ptr<SessionSource> source);

// The SID text of a Linux user: "S-1-22-1-<uid>"; empty for an unknown name.
std::wstring SidOfUserName(const std::string& userName);

}  // namespace qlb::platform

// The session attached to the console, 0xFFFFFFFF when there is none.
DWORD WTSGetActiveConsoleSessionId();

namespace ZVPROCESS {
// SID text of the user logged on at the console; empty if nobody is logged on.
std::wstring GetCurrentUserSidstr();
}  // namespace ZVPROCESS
