// Reading the machine profile: defaults, every key, relative paths, and errors that name the file and
// the key.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "runtime/common/machine_profile.h"
#include "support/temp_dir.h"

namespace {

using qlb::LoadMachineProfile;
using qlb::ParseMachineProfile;

const std::filesystem::path kFile = "/opt/qlb/config/machine.json";

qlb::ProfileLoadResult Parse(const std::string& text) {
    return ParseMachineProfile(text, kFile, "/opt/qlb");
}

TEST(MachineProfile, MissingFileAndEmptyObjectGiveTheDefaults) {
    const auto missing = LoadMachineProfile("/nonexistent/qlb/config/machine.json");
    EXPECT_TRUE(missing.ok());
    const auto result = Parse("{}");
    ASSERT_TRUE(result.ok()) << result.error;
    for (const auto& p : {missing.profile, result.profile}) {
        EXPECT_EQ(p.registry, "/var/lib/qlb/registry.db");
        EXPECT_EQ(p.appData, "/var/lib/qlb/appdata/");
        EXPECT_EQ(p.logDir, "/var/log/qlb/");
        EXPECT_EQ(p.runDir, "/run/qlb/");
        EXPECT_EQ(p.ipcAllow.users, std::vector<std::string>{"root"});
        EXPECT_EQ(p.ipcAllow.groups, std::vector<std::string>{"qlb"});
        EXPECT_FALSE(p.firmware);
        EXPECT_FALSE(p.retail);
    }
    EXPECT_EQ(result.profile.source, kFile);
}

TEST(MachineProfile, EveryKeyIsRead) {
    const auto result = Parse(R"({
        "registry": "/m/reg.db", "appData": "/m/app", "logDir": "/m/log/", "runDir": "/m/run",
        "serviceManager": "embedded",
        "capabilities": {"plugins": ["BigData", "QDS"], "properties": {"ZVLoginGuide": ["china", "x"]}},
        "appVersion": "2.3.4.5", "systemRoot": "/m/c", "dmiDir": "/m/dmi",
        "watchdogDevice": "/m/wdt",
        "firmware": {"logoSupported": true, "logoStore": "/m/logo.bin", "defaultLogos": ["/m/a.jpg"]},
        "power": "record",
        "services": {"com.zorvane.cloud.telemetry": {"url": "https://127.0.0.1:9/e"}},
        "caFile": "/m/ca.pem", "trustedKeys": ["/m/k1.pub", "/m/k2.pub"],
        "ipcAllow": {"users": ["alice"], "groups": []},
        "sessions": {"1": "alice", "2": "bob"}, "activeSession": "2",
        "region": {"serviceCountry": "CN", "saleCountry": "DE", "language": "zh-CN"},
        "retail": true, "futureKey": {"a": 1}
    })");
    ASSERT_TRUE(result.ok()) << result.error;
    const auto& p = result.profile;
    EXPECT_EQ(p.registry, "/m/reg.db");
    EXPECT_EQ(p.appData, "/m/app/");  // directories keep a trailing separator
    EXPECT_EQ(p.logDir, "/m/log/");
    EXPECT_EQ(p.runDir, "/m/run/");
    EXPECT_EQ(p.serviceManager, "embedded");
    EXPECT_EQ(p.capabilities.plugins, (std::set<std::string>{"BigData", "QDS"}));
    EXPECT_EQ(p.capabilities.properties.at("ZVLoginGuide"), (std::vector<std::string>{"china", "x"}));
    EXPECT_EQ(p.appVersion, "2.3.4.5");
    EXPECT_EQ(p.systemRoot, "/m/c/");
    EXPECT_EQ(p.dmiDir, "/m/dmi/");
    EXPECT_EQ(p.watchdogDevice, "/m/wdt");
    ASSERT_TRUE(p.firmware);
    EXPECT_TRUE(p.firmware->logoSupported);
    EXPECT_EQ(p.firmware->logoStore, "/m/logo.bin");
    EXPECT_EQ(p.firmware->defaultLogos, std::vector<std::filesystem::path>{"/m/a.jpg"});
    EXPECT_EQ(p.power, "record");
    EXPECT_EQ(p.services.at("com.zorvane.cloud.telemetry").at("url"), "https://127.0.0.1:9/e");
    EXPECT_EQ(p.caFile, std::filesystem::path("/m/ca.pem"));
    EXPECT_EQ(p.trustedKeys.size(), 2u);
    EXPECT_EQ(p.ipcAllow.users, std::vector<std::string>{"alice"});
    EXPECT_TRUE(p.ipcAllow.groups.empty());
    EXPECT_EQ(p.sessions.at(2), "bob");
    EXPECT_EQ(p.activeSession, 2u);  // given as text here
    EXPECT_EQ(p.region.serviceCountry, "CN");
    EXPECT_EQ(p.region.saleCountry, "DE");
    EXPECT_EQ(p.region.language, "zh-CN");
    EXPECT_TRUE(p.retail);
}

TEST(MachineProfile, RelativePathsAreTakenAgainstTheProgramDirectory) {
    const auto result = Parse(R"({"appData": "state/app", "registry": "state/reg.db",
        "trustedKeys": ["keys/a.pub"], "firmware": {"logoStore": "fw/logo", "defaultLogos": ["fw/d.jpg"]}})");
    ASSERT_TRUE(result.ok()) << result.error;
    const auto& p = result.profile;
    EXPECT_EQ(p.appData, "/opt/qlb/state/app/");
    EXPECT_EQ(p.registry, "/opt/qlb/state/reg.db");
    EXPECT_EQ(p.trustedKeys.at(0), "/opt/qlb/keys/a.pub");
    EXPECT_EQ(p.firmware->logoStore, "/opt/qlb/fw/logo");
    EXPECT_EQ(p.firmware->defaultLogos.at(0), "/opt/qlb/fw/d.jpg");

    // A file on disk: the program directory is the one above config/.
    qlb::testing::TempDir root;
    std::filesystem::create_directories(root / "config");
    std::ofstream(root / "config" / "machine.json") << R"({"logDir": "logs"})";
    const auto loaded = LoadMachineProfile(root / "config" / "machine.json");
    ASSERT_TRUE(loaded.ok()) << loaded.error;
    EXPECT_EQ(loaded.profile.logDir, root / "logs/");
    EXPECT_EQ(loaded.profile.source, root / "config" / "machine.json");
}

class ProfileErrors : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

// Each malformed profile gives the defaults and an error that names the file and the key.
TEST_P(ProfileErrors, NameTheFileAndTheKey) {
    const auto [text, key] = GetParam();
    const auto result = Parse(text);
    ASSERT_FALSE(result.ok()) << text;
    EXPECT_NE(result.error.find(kFile.string()), std::string::npos) << result.error;
    EXPECT_NE(result.error.find(key), std::string::npos) << result.error;
    EXPECT_EQ(result.profile.appData, "/var/lib/qlb/appdata/");
}

INSTANTIATE_TEST_SUITE_P(
    MalformedProfiles, ProfileErrors,
    ::testing::Values(std::make_pair(R"({"retail": "yes", "appData": "/x"})", "\"retail\""),
                      std::make_pair(R"({"appData": ""})", "\"appData\""),
                      std::make_pair(R"({"serviceManager": "upstart"})", "\"serviceManager\""),
                      std::make_pair(R"({"power": "acpi"})", "\"power\""),
                      std::make_pair(R"({"capabilities": {"plugins": ["a", 3]}})", "capabilities.plugins[1]"),
                      std::make_pair(R"({"capabilities": {"properties": {"P": "v"}}})",
                                     "capabilities.properties.P"),
                      std::make_pair(R"({"services": {"s": {"k": 1}}})", "services.s.k"),
                      std::make_pair(R"({"services": {"s": "url"}})", "services.s"),
                      std::make_pair(R"({"sessions": {"x": "alice"}})", "sessions.x"),
                      std::make_pair(R"({"activeSession": -1})", "activeSession"),
                      std::make_pair(R"({"activeSession": 4294967296})", "activeSession"),
                      std::make_pair(R"({"firmware": {"logoSupported": 1}})", "firmware.logoSupported"),
                      std::make_pair(R"({"ipcAllow": {"users": "root"}})", "ipcAllow.users"),
                      std::make_pair(R"({"region": {"language": null}})", "region.language"),
                      std::make_pair(R"({"trustedKeys": "k.pub"})", "trustedKeys"),
                      std::make_pair(R"({"retail": true,)", "not valid JSON"),
                      std::make_pair("[1, 2]", "must be a JSON object")));

}  // namespace
