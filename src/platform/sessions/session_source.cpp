#include "platform/sessions/session_source.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <mutex>
#include <vector>

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"

namespace qlb::platform {
namespace fs = std::filesystem;

EmbeddedSessionSource::EmbeddedSessionSource(const MachineProfile& profile)
    : activeFile_(profile.runDir / "sessions" / "active"), sessions_(profile.sessions) {
    if (profile.activeSession) {
        profileActive_ = *profile.activeSession;
    }
}

DWORD EmbeddedSessionSource::ActiveConsoleSessionId() {
    std::ifstream in(activeFile_);
    std::string text;
    if (in && std::getline(in, text)) {
        DWORD id = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
        if (ec == std::errc() && end != text.data()) {
            return id;
        }
    }
    return profileActive_.value_or(kNoConsoleSession);
}

std::optional<std::string> EmbeddedSessionSource::UserOfSession(DWORD sessionId) {
    const auto it = sessions_.find(sessionId);
    if (it == sessions_.end() || it->second.empty()) {
        return std::nullopt;
    }
    return it->second;
}

SysStatus EmbeddedSessionSource::SetActiveSession(DWORD sessionId) {
    std::error_code ec;
    fs::create_directories(activeFile_.parent_path(), ec);
    const fs::path temp = activeFile_.string() + ".tmp" + std::to_string(::getpid());
    {
        std::ofstream out(temp, std::ios::trunc);
        out << sessionId << "\n";
        if (!out.flush()) {
            return SysStatus::Fail(win::ERROR_WRITE_FAULT);
        }
    }
    if (::rename(temp.c_str(), activeFile_.c_str()) != 0) {
        const int err = errno;
        fs::remove(temp, ec);
        return SysStatus::Fail(win::FromErrno(err));
    }
    return SysStatus::Ok();
}

std::unique_ptr<SessionSource> MakeSessionSource(const MachineProfile& profile) {
    // logind takes this place once its backend lands; until then every machine answers from the
    // profile and the controls it has seen.
    return std::make_unique<EmbeddedSessionSource>(profile);
}

namespace {
std::mutex g_sourceMutex;
std::unique_ptr<SessionSource> g_source;
}  // namespace

SessionSource& CurrentSessionSource() {
    std::lock_guard lock(g_sourceMutex);
    if (!g_source) {
        g_source = MakeSessionSource(MachineProfile::Current());
    }
    return *g_source;
}

void SetCurrentSessionSource(std::unique_ptr<SessionSource> source) {
    std::lock_guard lock(g_sourceMutex);
    g_source = std::move(source);
}

std::wstring SidOfUserName(const std::string& userName) {
    if (userName.empty()) {
        return {};
    }
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(userName.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
        return {};
    }
    return L"S-1-22-1-" + std::to_wstring(found->pw_uid);
}

}  // namespace qlb::platform

DWORD WTSGetActiveConsoleSessionId() {
    return qlb::platform::CurrentSessionSource().ActiveConsoleSessionId();
}

namespace ZVPROCESS {

std::wstring GetCurrentUserSidstr() {
    auto& source = qlb::platform::CurrentSessionSource();
    const DWORD session = source.ActiveConsoleSessionId();
    if (session == qlb::platform::kNoConsoleSession) {
        return {};
    }
    const auto user = source.UserOfSession(session);
    return user ? qlb::platform::SidOfUserName(*user) : std::wstring();
}

}  // namespace ZVPROCESS
