#include "runtime/process/process_utils.h"

#include <unistd.h>

#include <mutex>

#include "platform/processes/process_api.h"
#include "platform/sessions/session_source.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/program_dir.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"

namespace {

std::mutex g_helperMutex;
std::function<std::string()> g_sessionUserResolver;
std::filesystem::path g_selfDirOverride;

// The session layer knows who is logged on at the console (logind, or the profile and the last
// logon control on machines without one).
std::string SessionUserFromSessionLayer() {
    auto& source = qlb::platform::CurrentSessionSource();
    const DWORD session = source.ActiveConsoleSessionId();
    if (session == qlb::platform::kNoConsoleSession) {
        return {};
    }
    return source.UserOfSession(session).value_or(std::string());
}

// Names may come with the original platform's separators ("\\PluginUpdate.dll"); they are relative to
// the program directory whichever way they are written.
std::string RelativeName(std::string name) {
    for (auto& c : name) {
        if (c == '\\') {
            c = '/';
        }
    }
    const auto first = name.find_first_not_of('/');
    return first == std::string::npos ? std::string{} : name.substr(first);
}

std::filesystem::path SelfDirectory() {
    std::lock_guard lock(g_helperMutex);
    return g_selfDirOverride.empty() ? qlb::ProgramDir() : g_selfDirOverride;
}

}  // namespace

long PsQueryProcessIdByName(const wchar_t* name, DWORD& pid) {
    if (name == nullptr) {
        return win::ERROR_INVALID_PARAMETER;
    }
    std::vector<unsigned long> pids;
    const long result =
        ZVPROCESS::HELPER::QueryPidByProcessName(name, pids, ZVPROCESS::HELPER::QUERY_PROCESS_ALL);
    if (result != 0) {
        return result;
    }
    if (pids.empty()) {
        return win::ERROR_NOT_FOUND;
    }
    pid = static_cast<DWORD>(pids.front());
    return 0;
}

DWORD PsStartProcessWithCurrentPrivilege(const wchar_t* name, DWORD* pid, DWORD reserved) {
    if (name == nullptr || *name == L'\0' || reserved != 0) {
        return 0;
    }
    std::filesystem::path image(qlb::W2U(name));
    if (!image.is_absolute()) {
        image = SelfDirectory() / image;
    }
    // Only a privileged service can, and needs to, step into the session user's identity; an
    // unprivileged one starts the program as itself.
    std::string user;
    if (::geteuid() == 0) {
        user = ZVPROCESS::ActiveSessionUser();
        if (user == "root") {
            user.clear();
        }
    }
    return ZVPROCESS::StartProcessAsUser(image, {}, user, pid) == 0 ? 1 : 0;
}

namespace ZVPROCESS {

std::string ActiveSessionUser() {
    std::function<std::string()> resolver;
    {
        std::lock_guard lock(g_helperMutex);
        resolver = g_sessionUserResolver;
    }
    return resolver ? resolver() : SessionUserFromSessionLayer();
}

void SetActiveSessionUserResolver(std::function<std::string()> resolver) {
    std::lock_guard lock(g_helperMutex);
    g_sessionUserResolver = std::move(resolver);
}

DWORD StartProcessAsUser(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                         const std::string& user, DWORD* pid) {
    qlb::platform::StartOptions options;
    options.image = image;
    options.arguments = arguments;
    options.user = user;
    auto started = qlb::platform::Processes().Start(options);
    if (!started) {
        return started.error;
    }
    if (pid != nullptr) {
        *pid = started.value;
    }
    return 0;
}

namespace HELPER {

long QueryPidByProcessName(const std::wstring& name, std::vector<unsigned long>& pids,
                           QueryProcessType /*type*/) {
    auto snapshot = qlb::platform::Processes().Snapshot();
    if (!snapshot) {
        return static_cast<long>(snapshot.error);
    }
    for (const auto& entry : snapshot.value) {
        if (qlb::EqualsNoCase(entry.imageName, name)) {
            pids.push_back(entry.pid);
        }
    }
    return 0;
}

bool GetSelfFullFilePath(std::wstring& out, const std::wstring& fileName) {
    const auto dir = SelfDirectory();
    if (dir.empty()) {
        return false;
    }
    out = DE::ANSIToUnicode((dir / RelativeName(qlb::W2U(fileName))).string());
    return true;
}

bool GetSelfFullFilePath(std::string& out, const std::string& fileName) {
    const auto dir = SelfDirectory();
    if (dir.empty()) {
        return false;
    }
    out = (dir / RelativeName(fileName)).string();
    return true;
}

void SetSelfDirectoryForTesting(const std::filesystem::path& dir) {
    std::lock_guard lock(g_helperMutex);
    g_selfDirOverride = dir;
}

}  // namespace HELPER
}  // namespace ZVPROCESS
