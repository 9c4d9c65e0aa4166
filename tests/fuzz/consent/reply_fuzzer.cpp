// The agreement server's reply analysers on arbitrary replies, one target each (QLB_REPLY names it):
// the error code is 400 or the integer, the version a decimal number or empty, and the record analyser
// stores what matches for a logged-in user whose server has spoken. None may throw or crash.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/win_types.h"
#include "runtime/registry/de_registry.h"
#include "runtime/registry/registry_store.h"
#include "support/consent_test_peer.h"

namespace {

// A registry store in a temporary directory and a logged-in user whose server has spoken, so that record
// replies reach the registry writes.
void PrepareConsentMachine() {
    static const bool prepared = [] {
        const auto dir =
            std::filesystem::temp_directory_path() / ("qlb-consent-fuzz-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        qlb::MachineProfile profile;
        profile.registry = dir / "registry.db";
        profile.capabilities.plugins = {"QDS"};
        profile.region = {"CN", "CN", "zh-CN"};
        qlb::MachineProfile::SetCurrent(profile);
        auto store = qlb::registry::RegistryStore::Open(profile.registry);
        qlb::registry::RegistryStore::SetDefault(store.value);
        qlb::consent::SetCurrentUserSidProvider([] { return std::wstring(L"S-1-5-21-fuzz"); });
        const std::wstring key = std::wstring(L"S-1-5-21-fuzz") + qlb::consent::kAgreementServiceKey;
        DE::Registry::SetValue(HKEY_USERS, key, qlb::consent::kUserLoginFlagValue, L"1");
        DE::Registry::SetValue(HKEY_USERS, key, qlb::consent::kServerUpdatedFlagValue, L"1");
        return true;
    }();
    (void)prepared;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    PrepareConsentMachine();
    const std::string reply(reinterpret_cast<const char*>(data), size);
    constexpr std::string_view kReply = QLB_REPLY;
    if constexpr (kReply == "error_code") {
        (void)ConsentTestPeer::AnalyzeResponseErrorCode(reply);
    } else if constexpr (kReply == "record") {
        (void)ConsentTestPeer::AnalyzeRecordResponse(reply);
    } else {
        const std::string version = AgreementService::GetInstance()->AnalyzeVersionResponse(reply);
        for (std::size_t i = 0; i < version.size(); ++i) {
            if (!((version[i] >= '0' && version[i] <= '9') || (version[i] == '-' && i == 0))) {
                std::abort();
            }
        }
    }
    return 0;
}
