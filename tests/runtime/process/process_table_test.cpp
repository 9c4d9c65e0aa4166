// The Linux process table: snapshots by image name, handles bound to one process, waits and ends.

#include <gtest/gtest.h>

#include "platform/processes/process_api.h"
#include "runtime/process/support/process_test_support.h"

namespace {

using namespace qlb::platform;
using namespace qlb::testing;

TEST(ProcessTable, ImageNameIsTheFullFileNameOfTheExecutableNotTheShortCommandName) {
    TempDir dir;
    HelperProcess child(InstallHelper(dir.path(), "QLBMessageCenterTable.exe"));
    auto snapshot = MakeLinuxProcessApi()->Snapshot();
    ASSERT_TRUE(snapshot);
    const auto entry = std::find_if(snapshot.value.begin(), snapshot.value.end(), [&](const auto& e) {
        return e.pid == static_cast<std::uint32_t>(child.pid());
    });
    ASSERT_NE(entry, snapshot.value.end());
    EXPECT_EQ(entry->imageName, L"QLBMessageCenterTable.exe");
    EXPECT_EQ(entry->imagePath, dir / "QLBMessageCenterTable.exe");
    EXPECT_EQ(ImageNameOf("/opt/app/Tessalink.exe (deleted)"), L"Tessalink.exe");
}

TEST(ProcessTable, WaitSeesTheEndOfARunningProcessAndTimesOutBefore) {
    TempDir dir;
    HelperProcess child(InstallHelper(dir.path(), "Tessalink.exe"));
    auto api = MakeLinuxProcessApi();
    auto process = api->Open(static_cast<std::uint32_t>(child.pid()));
    ASSERT_TRUE(process);
    EXPECT_EQ(process.value->Wait(0), WAIT_TIMEOUT);
    EXPECT_TRUE(process.value->Terminate(0));
    EXPECT_EQ(process.value->Wait(INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(Eventually([&] { return child.Ended(); }));
    EXPECT_TRUE(process.value->Terminate(0)) << "ending a process that has ended already is no failure";
    for (const std::uint32_t pid : {0u, 0x7FFFFFF0u, 0xFFFFFFFFu}) {
        EXPECT_EQ(api->Open(pid).error, win::ERROR_INVALID_PARAMETER) << pid;
    }
}

TEST(ProcessTable, StartReportsAnExecutableThatCannotRun) {
    TempDir dir;
    auto api = MakeLinuxProcessApi();
    StartOptions options;
    options.image = dir / "absent.exe";
    EXPECT_EQ(api->Start(options).error, win::ERROR_FILE_NOT_FOUND);
    options.image = "relative.exe";
    EXPECT_EQ(api->Start(options).error, win::ERROR_INVALID_PARAMETER);
    WriteFile(dir / "text.exe", "not a program");
    options.image = dir / "text.exe";
    EXPECT_FALSE(api->Start(options));
    options.image = QLB_TEST_SLEEPER;
    options.user = "no-such-user-qlb";
    EXPECT_EQ(api->Start(options).error, win::ERROR_NONE_MAPPED);
}

}  // namespace
