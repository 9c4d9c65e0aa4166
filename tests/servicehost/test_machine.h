#pragma once
// One temporary machine for the whole test process: profile, registry, telemetry spool, log and the
// program directory's configuration all under one directory of its own, so that test processes running
// side by side share no file. The service layer, clock and mutexes of the host are fakes.

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/services/testing/fake_service_control.h"
#include "platform/sync/testing/fake_clock.h"
#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/process/process_utils.h"
#include "servicehost/service_host_platform.h"
#include "spool_events.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace qlb::servicehost::testing {

namespace fs = std::filesystem;
using qlb::testing::Eventually;

inline const fs::path& MachineRoot() {
    static const qlb::testing::TempDir root;
    return root.Path();
}

// The plugin configuration the start-up stage reads.
inline fs::path PluginConfig() {
    return MachineRoot() / "bin" / "config" / "plugincfg.xml";
}

class TestMachineEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        const fs::path root = MachineRoot();
        fs::create_directories(root / "dmi");
        std::ofstream(root / "dmi" / "bios_date") << "03/15/2024\n";
        fs::create_directories(PluginConfig().parent_path());
        fs::copy_file(fs::path(QLB_SOURCE_DIR) / "config" / "plugincfg.xml", PluginConfig());
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting(root / "bin");
        MachineProfile profile;
        profile.registry = root / "registry.db";
        profile.appData = root / "appdata/";
        profile.logDir = root / "log/";
        profile.runDir = root / "run/";
        profile.serviceManager = "embedded";
        profile.dmiDir = root / "dmi/";
        profile.watchdogDevice = root / "WDT0001";
        profile.systemRoot = root / "root/";
        profile.power = "record";
        MachineProfile::SetCurrent(profile);
        qlb::logging::InitLogger("QuillbarService", (root / "no-config.properties").string(),
                                 (root / "log/").string());
    }
};

inline const ::testing::Environment* const kMachineEnvironment =
    ::testing::AddGlobalTestEnvironment(new TestMachineEnvironment);

inline int CountLogLines(const std::string& text) {
    return qlb::testing::CountLines(MachineRoot() / "log" / "QuillbarService.log", text);
}

inline std::vector<nlohmann::json> SpoolRecordsOf(const std::string& code) {
    return SpooledEvents(MachineRoot() / "appdata", code);
}

// Fakes of the host platform, installed for one test.
struct FakeHost {
    std::shared_ptr<platform::testing::FakeServiceControlManager> services =
        std::make_shared<platform::testing::FakeServiceControlManager>();
    std::shared_ptr<platform::testing::FakeClock> clock = std::make_shared<platform::testing::FakeClock>();
    std::shared_ptr<platform::NamedMutexSpace> mutexes;

    explicit FakeHost(const std::string& tag)
        : mutexes(std::make_shared<platform::NamedMutexSpace>(MachineRoot() / ("run-" + tag))) {
        SetPlatform(HostPlatform{services, clock, mutexes});
    }
};

}  // namespace qlb::servicehost::testing
