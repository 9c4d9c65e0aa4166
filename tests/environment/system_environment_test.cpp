#include "environment/system_environment.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "runtime/common/machine_profile.h"
#include "runtime/hardware/baseboard.h"
#include "runtime/registry/de_registry.h"

namespace {

namespace fs = std::filesystem;

fs::path Root() {
    static const fs::path root = fs::temp_directory_path() / ("qlb-env-" + std::to_string(::getpid()));
    return root;
}

class MachineEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        fs::remove_all(Root());
        fs::create_directories(Root() / "dmi");
        qlb::MachineProfile profile;
        profile.registry = Root() / "registry.db";
        profile.dmiDir = Root() / "dmi/";
        qlb::MachineProfile::SetCurrent(profile);
    }
    void TearDown() override { fs::remove_all(Root()); }
};

const ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new MachineEnvironment);

TEST(PowerManagerIntellMode, DefaultsToOneWhenMissingOrEmpty) {
    DE::Registry registry;
    (void)registry.RegDeleteAll(HKEY_LOCAL_MACHINE, SystemEnvironment::kPowerManagerKey);
    EXPECT_EQ(SystemEnvironment::GetPowerManagerIntellMode(), "1");
    ASSERT_TRUE(DE::Registry::SetValue(HKEY_LOCAL_MACHINE, SystemEnvironment::kPowerManagerKey,
                                       SystemEnvironment::kPowerManagerIntellModeValue, std::wstring()));
    EXPECT_EQ(SystemEnvironment::GetPowerManagerIntellMode(), "1");
}

TEST(PowerManagerIntellMode, GivesTheStoredText) {
    ASSERT_TRUE(DE::Registry::SetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TESSALINK\\QLBPowerManager",
                                       L"powermanagerintellmode", std::wstring(L"2")));
    EXPECT_EQ(SystemEnvironment::GetPowerManagerIntellMode(), "2");
}

TEST(RelaxCrashDumpType, SmallDumpBecomesKernelDumpAndNothingElseChanges) {
    const DWORD small = 3;
    ASSERT_TRUE(DE::Registry::SetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", small));
    RelaxCrashDumpType();
    DWORD value = 0;
    ASSERT_TRUE(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", value));
    EXPECT_EQ(value, 2u);
    const DWORD complete = 1;
    ASSERT_TRUE(DE::Registry::SetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", complete));
    RelaxCrashDumpType();
    ASSERT_TRUE(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", value));
    EXPECT_EQ(value, 1u);
}

TEST(RelaxCrashDumpType, MissingSettingStaysMissing) {
    DE::Registry registry;
    (void)registry.RegDeleteAll(HKEY_LOCAL_MACHINE, kCrashControlKey);
    RelaxCrashDumpType();
    DWORD value = 0;
    EXPECT_FALSE(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", value));
}

TEST(Baseboard, BiosDateIsTheTrimmedFirstLineOfTheProfilesDmiFile) {
    std::ofstream(Root() / "dmi" / "bios_date") << "  03/15/2024 \nsecond line\n";
    EXPECT_EQ(Baseboard().GetBIOSReaseDate(), L"03/15/2024");
    EXPECT_TRUE(Baseboard(Root() / "nowhere").GetBIOSReaseDate().empty());
}

}  // namespace
