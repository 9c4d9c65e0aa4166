// The answers the machine profile gives through the utility classes: capabilities, version, data and
// log directories, retail, and the memory note in the log.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "runtime/common/app_paths.h"
#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/show_memory.h"
#include "runtime/common/soft_shelf.h"

namespace {

class DeviceAnswers : public ::testing::Test {
  protected:
    void TearDown() override { qlb::MachineProfile::SetCurrent(qlb::MachineProfile{}); }
};

TEST_F(DeviceAnswers, NothingIsSupportedByDefault) {
    auto* shelf = QLBSoftShelf::GetInstance();
    ASSERT_NE(shelf, nullptr);
    EXPECT_FALSE(shelf->IsSupportPlugin("BigData"));
    EXPECT_FALSE(shelf->IsSupportProperty("ZVLoginGuide", "china"));
    EXPECT_EQ(QuillbarVersionMgr::GetInstance()->GetAppVersion(), "1.0.0.0");
    EXPECT_FALSE(DE::IsRetailComputer());
}

TEST_F(DeviceAnswers, CapabilitiesComeFromTheProfileExactly) {
    qlb::MachineProfile profile;
    profile.capabilities.plugins = {"BigData", "DumpReport"};
    profile.capabilities.properties["ZVLoginGuide"] = {"india", "china"};
    profile.appVersion = "3.1.0.7";
    profile.retail = true;
    qlb::MachineProfile::SetCurrent(profile);
    auto* shelf = QLBSoftShelf::GetInstance();
    EXPECT_TRUE(shelf->IsSupportPlugin("BigData"));
    EXPECT_TRUE(shelf->IsSupportPlugin("DumpReport"));
    EXPECT_FALSE(shelf->IsSupportPlugin("bigdata"));  // names are exact
    EXPECT_FALSE(shelf->IsSupportPlugin("NoPurchaseSalesInventory"));
    EXPECT_TRUE(shelf->IsSupportProperty("ZVLoginGuide", "china"));
    EXPECT_FALSE(shelf->IsSupportProperty("ZVLoginGuide", "japan"));
    EXPECT_FALSE(shelf->IsSupportProperty("Other", "china"));
    EXPECT_EQ(QuillbarVersionMgr::GetInstance()->GetAppVersion(), "3.1.0.7");
    EXPECT_TRUE(DE::IsRetailComputer());
}

TEST_F(DeviceAnswers, AppDataPathEndsInASeparatorInEveryForm) {
    qlb::MachineProfile profile;
    profile.appData = "/srv/m/app";
    qlb::MachineProfile::SetCurrent(profile);
    EXPECT_EQ(DE::GetAppDataPath(), L"/srv/m/app/");
    std::string narrow = "untouched";
    EXPECT_EQ(DE::GetAppDataPath(narrow), 0);
    EXPECT_EQ(narrow, "/srv/m/app/");
    std::wstring wide;
    EXPECT_EQ(DE::GetAppDataPath(wide), 0);
    EXPECT_EQ(wide, L"/srv/m/app/");
}

TEST_F(DeviceAnswers, EmptyAppDataIsAnErrorThatLeavesTheString) {
    qlb::MachineProfile profile;
    profile.appData = "";
    qlb::MachineProfile::SetCurrent(profile);
    std::string narrow = "untouched";
    EXPECT_NE(DE::GetAppDataPath(narrow), 0);
    EXPECT_EQ(narrow, "untouched");
}

TEST_F(DeviceAnswers, LogDirectoryHasNoTrailingSeparator) {
    qlb::MachineProfile profile;
    profile.logDir = "/srv/m/log/";
    qlb::MachineProfile::SetCurrent(profile);
    EXPECT_EQ(LogUtil::GetCurrentDir(), "/srv/m/log");
    EXPECT_EQ(LogUtil::GetCurrentDir() + "/dump/", "/srv/m/log/dump/");
    profile.logDir = "/";
    qlb::MachineProfile::SetCurrent(profile);
    EXPECT_EQ(LogUtil::GetCurrentDir(), "/");
}

TEST_F(DeviceAnswers, ShowMemoryWritesLabelAndResidentSizeAtWarn) {
    const auto bytes = qlb::ResidentMemoryBytes();
    ASSERT_TRUE(bytes);
    EXPECT_GT(*bytes, 0u);

    char pattern[] = "/tmp/qlb-mem-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path dir = std::filesystem::path(pattern) / "log/";
    qlb::logging::InitLogger("MemoryTest", std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                             dir.string());
    ShowMemory(L"Enter g_MsgClient.Initialize()");
    ShowMemory(nullptr);
    std::ifstream in(dir / "MemoryTest.log");
    std::string line;
    std::getline(in, line);
    std::filesystem::remove_all(pattern);
    EXPECT_NE(line.find("WARN"), std::string::npos) << line;
    EXPECT_NE(line.find("Enter g_MsgClient.Initialize() memory: "), std::string::npos) << line;
    EXPECT_NE(line.find(" KB(ShowMemory)"), std::string::npos) << line;
}

}  // namespace
