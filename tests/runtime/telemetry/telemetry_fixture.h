#pragma once
// A whole machine in a temporary directory: the profile points appData and logDir there, and the
// process log is written through the shipped configuration so tests can read its lines.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"

namespace qlb::testing {

class TempMachine : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qlb-telemetry-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root_ = pattern;
        MachineProfile profile;
        profile.appData = root_ / "appdata/";
        profile.logDir = root_ / "log/";
        Configure(profile);
        logging::InitLogger("TelemetryTest", std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                            (root_ / "log/").string());
    }

    void TearDown() override {
        MachineProfile::SetCurrent(MachineProfile{});
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }

    void Configure(MachineProfile profile) {
        profile_ = profile;
        MachineProfile::SetCurrent(std::move(profile));
    }

    std::filesystem::path SpoolFile() const { return profile_.appData / "telemetry" / "events.jsonl"; }

    static std::string ReadFile(const std::filesystem::path& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    static std::vector<std::string> ReadLines(const std::filesystem::path& path) {
        std::vector<std::string> lines;
        std::istringstream in(ReadFile(path));
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    std::string LogText() const { return ReadFile(root_ / "log" / "TelemetryTest.log"); }

    std::filesystem::path root_;
    MachineProfile profile_;
};

}  // namespace qlb::testing
