// The answers the machine profile gives through the utility classes: capabilities, version, data and
// log directories, retail, and the memory note in the log.

#include <gtest/gtest.h>

#include <regex>

#include "runtime/common/app_paths.h"
#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/show_memory.h"
#include "runtime/common/soft_shelf.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

class DeviceAnswers : public ::testing::Test {
  protected:
    void TearDown() override { qlb::MachineProfile::SetCurrent(qlb::MachineProfile{}); }
};

TEST_F(DeviceAnswers, CapabilitiesVersionAndRetailComeFromTheProfileExactly) {
    auto* shelf = QLBSoftShelf::GetInstance();
    ASSERT_NE(shelf, nullptr);
    qlb::MachineProfile profile;
    profile.capabilities.plugins = {"BigData", "DumpReport"};
    profile.capabilities.properties["ZVLoginGuide"] = {"india", "china"};
    profile.appVersion = "3.1.0.7";
    profile.retail = true;
    qlb::MachineProfile::SetCurrent(profile);
    EXPECT_TRUE(shelf->IsSupportPlugin("DumpReport"));
    EXPECT_FALSE(shelf->IsSupportPlugin("bigdata"));  // names are exact
    EXPECT_TRUE(shelf->IsSupportProperty("ZVLoginGuide", "china"));
    EXPECT_FALSE(shelf->IsSupportProperty("ZVLoginGuide", "japan"));
    EXPECT_FALSE(shelf->IsSupportProperty("Other", "china"));
    EXPECT_EQ(QuillbarVersionMgr::GetInstance()->GetAppVersion(), "3.1.0.7");
    EXPECT_TRUE(DE::IsRetailComputer());
}

TEST_F(DeviceAnswers, AppDataEndsInASeparatorAndLogDirDoesNot) {
    qlb::MachineProfile profile;
    profile.appData = "/srv/m/app";
    profile.logDir = "/srv/m/log/";
    qlb::MachineProfile::SetCurrent(profile);
    EXPECT_EQ(DE::GetAppDataPath(), L"/srv/m/app/");
    std::string narrow = "untouched";
    EXPECT_EQ(DE::GetAppDataPath(narrow), 0);
    EXPECT_EQ(narrow, "/srv/m/app/");
    std::wstring wide;
    EXPECT_EQ(DE::GetAppDataPath(wide), 0);
    EXPECT_EQ(wide, L"/srv/m/app/");
    EXPECT_EQ(LogUtil::GetCurrentDir(), "/srv/m/log");

    profile.appData = "";
    profile.logDir = "/";
    qlb::MachineProfile::SetCurrent(profile);
    narrow = "untouched";
    EXPECT_NE(DE::GetAppDataPath(narrow), 0);
    EXPECT_EQ(narrow, "untouched");
    EXPECT_EQ(LogUtil::GetCurrentDir(), "/");
}

TEST_F(DeviceAnswers, ShowMemoryWritesLabelAndResidentSizeAtWarn) {
    qlb::testing::TempDir dir;
    qlb::logging::InitLogger("MemoryTest", std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                             (dir / "log/").string());
    ShowMemory(L"Enter g_MsgClient.Initialize()");
    ShowMemory(nullptr);
    const auto lines = qlb::testing::ReadLines(dir / "log" / "MemoryTest.log");
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(std::regex_search(
        lines[0],
        std::regex(R"( WARN Enter g_MsgClient\.Initialize\(\) memory: [1-9][0-9]* KB\(ShowMemory\)$)")))
        << lines[0];
}

}  // namespace
