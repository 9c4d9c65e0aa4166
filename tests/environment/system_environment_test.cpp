#include "environment/system_environment.h"

#include <gtest/gtest.h>

#include <fstream>

#include "runtime/common/machine_profile.h"
#include "runtime/hardware/baseboard.h"
#include "runtime/registry/de_registry.h"
#include "runtime/registry/registry_store.h"
#include "support/temp_dir.h"

namespace {

// Each test has a machine of its own: a registry and a DMI directory in a temporary directory.
class SystemEnvironmentTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(dir_ / "dmi");
        qlb::MachineProfile profile;
        profile.registry = dir_ / "registry.db";
        profile.dmiDir = dir_ / "dmi/";
        qlb::MachineProfile::SetCurrent(profile);
        qlb::registry::RegistryStore::SetDefault(nullptr);
    }
    void TearDown() override {
        qlb::registry::RegistryStore::SetDefault(nullptr);
        qlb::MachineProfile::SetCurrent(qlb::MachineProfile{});
    }
    qlb::testing::TempDir dir_;
};

TEST_F(SystemEnvironmentTest, PowerManagerIntellModeIsTheStoredTextOrOne) {
    EXPECT_EQ(SystemEnvironment::GetPowerManagerIntellMode(), "1");
    ASSERT_TRUE(DE::Registry::SetValue(HKEY_LOCAL_MACHINE, SystemEnvironment::kPowerManagerKey,
                                       SystemEnvironment::kPowerManagerIntellModeValue, std::wstring()));
    EXPECT_EQ(SystemEnvironment::GetPowerManagerIntellMode(), "1");
    ASSERT_TRUE(DE::Registry::SetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TESSALINK\\QLBPowerManager",
                                       L"powermanagerintellmode", std::wstring(L"2")));
    EXPECT_EQ(SystemEnvironment::GetPowerManagerIntellMode(), "2");
}

TEST_F(SystemEnvironmentTest, SmallCrashDumpBecomesKernelDumpAndNothingElseChanges) {
    DWORD value = 0;
    RelaxCrashDumpType();
    EXPECT_FALSE(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", value));
    for (const auto& [before, after] : {std::pair<DWORD, DWORD>{3, 2}, {1, 1}}) {
        ASSERT_TRUE(
            DE::Registry::SetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", before));
        RelaxCrashDumpType();
        ASSERT_TRUE(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", value));
        EXPECT_EQ(value, after);
    }
}

TEST_F(SystemEnvironmentTest, BiosDateIsTheTrimmedFirstLineOfTheProfilesDmiFile) {
    std::ofstream(dir_ / "dmi" / "bios_date") << "  03/15/2024 \nsecond line\n";
    EXPECT_EQ(Baseboard().GetBIOSReaseDate(), L"03/15/2024");
    EXPECT_TRUE(Baseboard(dir_ / "nowhere").GetBIOSReaseDate().empty());
}

}  // namespace
