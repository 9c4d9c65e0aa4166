#pragma once
// A whole machine in a temporary directory for the handler tests: registry store, app data, log and
// run directories, and one console session held by the current user. The process log is written
// through the shipped configuration so that tests read its lines.

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "platform/sessions/session_source.h"
#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/registry/de_registry.h"
#include "runtime/registry/registry_store.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace qlb::messageservice::test {

class MessageServiceMachine : public ::testing::Test {
  protected:
    void SetUp() override {
        MachineProfile profile;
        profile.registry = root_ / "registry.db";
        profile.appData = root_ / "appdata/";
        profile.logDir = root_ / "log/";
        profile.runDir = root_ / "run/";
        const passwd* user = ::getpwuid(::getuid());
        ASSERT_NE(user, nullptr);
        profile.sessions[1] = user->pw_name;
        profile.activeSession = 1;
        profile.ipcAllow = IpcAllow{{user->pw_name}, {}};
        MachineProfile::SetCurrent(profile);
        auto store = registry::RegistryStore::Open(profile.registry);
        ASSERT_TRUE(store.ok());
        registry::RegistryStore::SetDefault(store.value);
        platform::SetCurrentSessionSource(std::make_unique<platform::EmbeddedSessionSource>(profile));
        std::filesystem::create_directories(profile.logDir);
        logging::InitLogger("MessageServiceTest",
                            std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                            profile.logDir.string());
        MarkLog();
    }
    void TearDown() override {
        platform::SetCurrentSessionSource(nullptr);
        registry::RegistryStore::SetDefault(nullptr);
        MachineProfile::SetCurrent(MachineProfile{});
    }

    // From now on only lines written later count.
    void MarkLog() { log_ = std::make_unique<qlb::testing::FileTail>(root_ / "log/MessageServiceTest.log"); }

    static std::wstring Value(HKEY root, const std::wstring& key, const std::wstring& name) {
        std::wstring value;
        return DE::Registry::GetValue(root, key, name, value) ? value : L"<missing>";
    }
    static std::wstring UserKey(const std::wstring& below) {
        return L"S-1-22-1-" + std::to_wstring(::getuid()) + L"\\" + below;
    }

    qlb::testing::TempDir root_;
    std::unique_ptr<qlb::testing::FileTail> log_;
};

}  // namespace qlb::messageservice::test
