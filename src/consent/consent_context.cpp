#include "consent/consent_context.h"

#include <unistd.h>

#include <mutex>
#include <utility>

#include "platform/sessions/session_source.h"
#include "runtime/common/program_dir.h"

namespace qlb::consent {
namespace {

std::mutex& ProviderMutex() {
    static std::mutex mutex;
    return mutex;
}

SidProvider& Provider() {
    static SidProvider provider;
    return provider;
}

std::filesystem::path& ProgramDirOverride() {
    static std::filesystem::path dir;
    return dir;
}

}  // namespace

void SetCurrentUserSidProvider(SidProvider provider) {
    std::lock_guard<std::mutex> lock(ProviderMutex());
    Provider() = std::move(provider);
}

std::wstring CurrentUserSid() {
    SidProvider provider;
    {
        std::lock_guard<std::mutex> lock(ProviderMutex());
        provider = Provider();
    }
    return provider ? provider() : ZVPROCESS::GetCurrentUserSidstr();
}

std::wstring ProcessUserSid() {
    return L"S-1-22-1-" + std::to_wstring(::geteuid());
}

void SetConsentProgramDir(std::filesystem::path dir) {
    std::lock_guard<std::mutex> lock(ProviderMutex());
    ProgramDirOverride() = std::move(dir);
}

std::filesystem::path ConsentProgramDir() {
    {
        std::lock_guard<std::mutex> lock(ProviderMutex());
        if (!ProgramDirOverride().empty()) {
            return ProgramDirOverride();
        }
    }
    return qlb::ProgramDir();
}

}  // namespace qlb::consent
