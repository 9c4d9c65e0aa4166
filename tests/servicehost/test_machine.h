#pragma once
// One temporary machine for the whole test process: profile, registry, telemetry spool and log all
// under one directory; the service layer, clock and mutexes of the host are fakes or live in it.

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/services/testing/fake_service_control.h"
#include "platform/sync/testing/fake_clock.h"
#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/program_dir.h"
#include "servicehost/service_host_platform.h"

namespace qlb::servicehost::testing {

namespace fs = std::filesystem;

inline fs::path& MachineRoot() {
    static fs::path root = fs::temp_directory_path() / ("qlb-servicehost-" + std::to_string(::getpid()));
    return root;
}

class TestMachineEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        const fs::path root = MachineRoot();
        fs::remove_all(root);
        fs::create_directories(root / "dmi");
        std::ofstream(root / "dmi" / "bios_date") << "03/15/2024\n";
        // The start-up stage reads the plugin configuration beside the executable.
        std::error_code ec;
        fs::create_directories(ProgramDir() / "config", ec);
        fs::copy_file(fs::path(QLB_SOURCE_DIR) / "config" / "plugincfg.xml",
                      ProgramDir() / "config" / "plugincfg.xml", fs::copy_options::overwrite_existing, ec);
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
    void TearDown() override { fs::remove_all(MachineRoot()); }
};

inline const ::testing::Environment* const kMachineEnvironment =
    ::testing::AddGlobalTestEnvironment(new TestMachineEnvironment);

inline std::vector<std::string> ReadLines(const fs::path& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline std::vector<std::string> LogLines() {
    return ReadLines(MachineRoot() / "log" / "QuillbarService.log");
}

inline int CountLogLines(const std::string& text) {
    int n = 0;
    for (const auto& line : LogLines()) {
        n += line.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
}

inline std::vector<nlohmann::json> SpoolRecords() {
    std::vector<nlohmann::json> records;
    for (const auto& line : ReadLines(MachineRoot() / "appdata" / "telemetry" / "events.jsonl")) {
        auto j = nlohmann::json::parse(line, nullptr, false);
        if (!j.is_discarded()) {
            records.push_back(j);
        }
    }
    return records;
}

inline std::vector<nlohmann::json> SpoolRecordsOf(const std::string& code) {
    std::vector<nlohmann::json> out;
    for (auto& r : SpoolRecords()) {
        if (r.value("eventId", "") == code) {
            out.push_back(r);
        }
    }
    return out;
}

// Fakes of the host platform, installed for one test.
struct FakeHost {
    std::shared_ptr<platform::testing::FakeServiceControlManager> services =
        std::make_shared<platform::testing::FakeServiceControlManager>();
    std::shared_ptr<platform::testing::FakeClock> clock = std::make_shared<platform::testing::FakeClock>();
    std::shared_ptr<platform::NamedMutexSpace> mutexes;

    explicit FakeHost(const std::string& tag) {
        const fs::path run = MachineRoot() / ("run-" + tag);
        fs::remove_all(run);
        mutexes = std::make_shared<platform::NamedMutexSpace>(run);
        SetPlatform(HostPlatform{services, clock, mutexes});
    }
};

template <typename Pred>
bool Eventually(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(15)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pred();
}

}  // namespace qlb::servicehost::testing
