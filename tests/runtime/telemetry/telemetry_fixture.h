#pragma once
// A whole machine in a temporary directory: the profile points appData and logDir there, and the
// process log is written through the shipped configuration so tests can read its lines.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace qlb::testing {

class TempMachine : public ::testing::Test {
  protected:
    void SetUp() override {
        MachineProfile profile;
        profile.appData = dir_ / "appdata/";
        profile.logDir = dir_ / "log/";
        Configure(profile);
        logging::InitLogger("TelemetryTest", std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                            (dir_ / "log/").string());
    }
    void TearDown() override { MachineProfile::SetCurrent(MachineProfile{}); }

    void Configure(MachineProfile profile) {
        profile_ = profile;
        MachineProfile::SetCurrent(std::move(profile));
    }
    std::filesystem::path SpoolFile() const { return profile_.appData / "telemetry" / "events.jsonl"; }
    std::string LogText() const { return ReadFile(dir_ / "log" / "TelemetryTest.log"); }

    TempDir dir_;
    MachineProfile profile_;
};

}  // namespace qlb::testing
