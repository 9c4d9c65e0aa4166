#pragma once
// A consent machine for the reply fuzzers: a registry store in a temporary directory and a logged-in
// user whose server has spoken, so that record replies reach the registry writes.

#include <unistd.h>

#include <filesystem>
#include <string>

#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/win_types.h"
#include "runtime/registry/de_registry.h"
#include "runtime/registry/registry_store.h"

namespace qlb::consent::fuzzing {

inline void PrepareConsentMachine() {
    static const bool prepared = [] {
        const auto dir =
            std::filesystem::temp_directory_path() / ("qlb-consent-fuzz-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        MachineProfile profile;
        profile.registry = dir / "registry.db";
        profile.capabilities.plugins = {"QDS"};
        profile.region = {"CN", "CN", "zh-CN"};
        MachineProfile::SetCurrent(profile);
        auto store = qlb::registry::RegistryStore::Open(profile.registry);
        qlb::registry::RegistryStore::SetDefault(store.value);
        SetCurrentUserSidProvider([] { return std::wstring(L"S-1-5-21-fuzz"); });
        const std::wstring key = std::wstring(L"S-1-5-21-fuzz") + kAgreementServiceKey;
        DE::Registry::SetValue(HKEY_USERS, key, kUserLoginFlagValue, L"1");
        DE::Registry::SetValue(HKEY_USERS, key, kServerUpdatedFlagValue, L"1");
        return true;
    }();
    (void)prepared;
}

}  // namespace qlb::consent::fuzzing
