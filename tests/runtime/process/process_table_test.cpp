// The Linux process table: snapshots by image name, handles bound to one process, waits and ends.

#include <gtest/gtest.h>

#include "platform/processes/process_api.h"
#include "runtime/process/support/process_test_support.h"

namespace {

using namespace qlb::platform;
using qlb::testing::ChildProcess;
using qlb::testing::InstallHelper;
using qlb::testing::TempDir;

TEST(ProcessTable, ImageNameIsTheFullFileNameOfTheExecutableNotTheShortCommandName) {
    TempDir dir;
    ChildProcess child(InstallHelper(dir.path(), "QLBMessageCenterTable.exe"));
    auto snapshot = MakeLinuxProcessApi()->Snapshot();
    ASSERT_TRUE(snapshot);
    bool found = false;
    for (const auto& e : snapshot.value) {
        if (e.pid == static_cast<std::uint32_t>(child.pid())) {
            found = true;
            EXPECT_EQ(e.imageName, L"QLBMessageCenterTable.exe");
            EXPECT_EQ(e.imagePath, dir / "QLBMessageCenterTable.exe");
        }
    }
    EXPECT_TRUE(found);
}

TEST(ProcessTable, DeletedExecutableKeepsItsName) {
    EXPECT_EQ(ImageNameOf("/opt/app/Tessalink.exe (deleted)"), L"Tessalink.exe");
    EXPECT_EQ(ImageNameOf("/opt/app/Tessalink.exe"), L"Tessalink.exe");
}

TEST(ProcessTable, WaitSeesTheEndOfARunningProcessAndTimesOutBefore) {
    TempDir dir;
    ChildProcess child(InstallHelper(dir.path(), "Tessalink.exe"));
    auto api = MakeLinuxProcessApi();
    auto process = api->Open(static_cast<std::uint32_t>(child.pid()));
    ASSERT_TRUE(process);
    EXPECT_EQ(process.value->Wait(0), WAIT_TIMEOUT);
    EXPECT_TRUE(process.value->Terminate(0));
    EXPECT_EQ(process.value->Wait(INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(qlb::testing::WaitUntil([&] { return child.Ended(); }));
    // Ending a process that has ended already is no failure.
    EXPECT_TRUE(process.value->Terminate(0));
}

TEST(ProcessTable, OpeningAProcessThatDoesNotExistFails) {
    auto api = MakeLinuxProcessApi();
    EXPECT_EQ(api->Open(0).error, win::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(api->Open(0x7FFFFFF0).error, win::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(api->Open(0xFFFFFFFF).error, win::ERROR_INVALID_PARAMETER);
}

TEST(ProcessTable, StartReportsAnExecutableThatCannotRun) {
    TempDir dir;
    auto api = MakeLinuxProcessApi();
    StartOptions options;
    options.image = dir / "absent.exe";
    EXPECT_EQ(api->Start(options).error, win::ERROR_FILE_NOT_FOUND);
    options.image = "relative.exe";
    EXPECT_EQ(api->Start(options).error, win::ERROR_INVALID_PARAMETER);
    qlb::testing::WriteFile(dir / "text.exe", "not a program");
    options.image = dir / "text.exe";
    EXPECT_FALSE(api->Start(options));
    options.image = QLB_TEST_SLEEPER;
    options.user = "no-such-user-qlb";
    EXPECT_EQ(api->Start(options).error, win::ERROR_NONE_MAPPED);
}

}  // namespace
