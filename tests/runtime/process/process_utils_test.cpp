// The Linux process table (snapshots by image name, handles bound to one process, waits and ends),
// and finding the product's processes by name and starting them in the user's session.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "platform/processes/fake_process_api.h"
#include "platform/processes/process_api.h"
#include "platform/sessions/session_source.h"
#include "runtime/common/program_dir.h"
#include "runtime/common/strings.h"
#include "runtime/process/process_utils.h"
#include "runtime/process/support/process_test_support.h"

namespace {

namespace fs = std::filesystem;
using namespace qlb::testing;

std::vector<unsigned long> PidsOf(const std::wstring& name) {
    std::vector<unsigned long> pids;
    EXPECT_EQ(ZVPROCESS::HELPER::QueryPidByProcessName(name, pids, ZVPROCESS::HELPER::QUERY_PROCESS_ALL), 0);
    std::sort(pids.begin(), pids.end());
    return pids;
}

TEST(ProcessTable, WaitSeesTheEndOfARunningProcessAndTimesOutBefore) {
    OpenTempDir dir;
    HelperProcess child(InstallHelper(dir.path(), "Tessalink.exe"));
    auto api = qlb::platform::MakeLinuxProcessApi();
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
    OpenTempDir dir;
    auto api = qlb::platform::MakeLinuxProcessApi();
    qlb::platform::StartOptions options;
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

TEST(ProcessLookup, FindsEveryProcessOfTheImageNameWithoutRegardToCaseAndNoOther) {
    OpenTempDir dir;
    // A name of the test's own, longer than a command name (the image name is the executable's full
    // file name), so that no other process matches.
    const std::string name = "QLBMessageCenterLookup" + std::to_string(::getpid()) + ".exe";
    fs::create_directory(dir / "other");
    HelperProcess a(InstallHelper(dir.path(), name));
    HelperProcess b(InstallHelper(dir / "other", name));
    HelperProcess c(InstallHelper(dir.path(), name + ".bak"));
    std::vector<unsigned long> expected{static_cast<unsigned long>(a.pid()),
                                        static_cast<unsigned long>(b.pid())};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(PidsOf(DE::ANSIToUnicode(name)), expected);
    EXPECT_EQ(qlb::platform::ImageNameOf("/opt/app/Tessalink.exe (deleted)"), L"Tessalink.exe");
    DWORD pid = 0;
    EXPECT_EQ(PsQueryProcessIdByName(DE::ANSIToUnicode(qlb::ToLowerAscii(name)).c_str(), pid), 0);
    EXPECT_NE(std::find(expected.begin(), expected.end(), pid), expected.end());
}

TEST(ProcessLookup, ANameThatMatchesNothingOrAFailedSnapshotLeavesThePidAlone) {
    DWORD pid = 4242;
    EXPECT_EQ(PsQueryProcessIdByName(L"NoSuchProgram-qlb.exe", pid), static_cast<long>(win::ERROR_NOT_FOUND));
    EXPECT_EQ(pid, 4242u);
    EXPECT_TRUE(PidsOf(L"NoSuchProgram-qlb.exe").empty());

    qlb::platform::FakeProcessApi fake;
    fake.FailSnapshot(win::ERROR_ACCESS_DENIED);
    qlb::platform::SetProcessesForTesting(&fake);
    EXPECT_EQ(PsQueryProcessIdByName(L"QLBMessageCenter.exe", pid),
              static_cast<long>(win::ERROR_ACCESS_DENIED));
    EXPECT_EQ(pid, 4242u);
    qlb::platform::SetProcessesForTesting(nullptr);
}

class ProcessStart : public ::testing::Test {
  protected:
    OpenTempDir dir;
    DWORD pid = 0;
    void SetUp() override {
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting(dir.path());
        InstallHelper(dir.path(), "Tessalink.exe");
    }
    void TearDown() override {
        if (pid != 0) {
            ::kill(static_cast<pid_t>(pid), SIGKILL);  // started by the test, ended by its id
        }
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting({});
        ZVPROCESS::SetActiveSessionUserResolver(nullptr);
    }
};

TEST_F(ProcessStart, StartsABareNameFromTheProgramDirectoryDetached) {
    ASSERT_EQ(PsStartProcessWithCurrentPrivilege(L"Tessalink.exe", &pid, 0), 1u);
    ASSERT_NE(pid, 0u);
    EXPECT_TRUE(Running(static_cast<pid_t>(pid)));
    // Not a child of the caller: nothing here has to reap it.
    EXPECT_EQ(::waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(pid) + "/exe"), dir / "Tessalink.exe");
}

TEST_F(ProcessStart, AMissingProgramGivesZero) {
    DWORD none = 0;
    for (const wchar_t* name : {L"Absent.exe", L"", static_cast<const wchar_t*>(nullptr)}) {
        EXPECT_EQ(PsStartProcessWithCurrentPrivilege(name, &none, 0), 0u);
        EXPECT_EQ(none, 0u);
    }
}

TEST_F(ProcessStart, RunsAsTheUserOfTheActiveSessionWhenPrivilegedAndFailsForAnUnknownOne) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to start a program as another user";
    }
    ZVPROCESS::SetActiveSessionUserResolver([] { return std::string("nobody"); });
    ASSERT_EQ(PsStartProcessWithCurrentPrivilege(L"Tessalink.exe", &pid, 0), 1u);
    const auto status = ReadLines("/proc/" + std::to_string(pid) + "/status");
    const auto uid =
        std::find_if(status.begin(), status.end(), [](const auto& l) { return l.rfind("Uid:", 0) == 0; });
    ASSERT_NE(uid, status.end());
    EXPECT_EQ(*uid, "Uid:\t65534\t65534\t65534\t65534");
    // The program sees the user's own identity, not the service's.
    std::string environment = "\n" + ReadFile("/proc/" + std::to_string(pid) + "/environ");
    std::replace(environment.begin(), environment.end(), '\0', '\n');
    EXPECT_NE(environment.find("\nUSER=nobody\n"), std::string::npos);
    EXPECT_EQ(environment.find("\nUSER=root\n"), std::string::npos);

    ZVPROCESS::SetActiveSessionUserResolver([] { return std::string("no-such-user-qlb"); });
    DWORD other = 0;
    EXPECT_EQ(PsStartProcessWithCurrentPrivilege(L"Tessalink.exe", &other, 0), 0u);
}

TEST_F(ProcessStart, SessionUserIsTheUserTheSessionLayerNamesForTheConsole) {
    ProfileScope profile(dir.path());
    profile.profile().sessions = {{1, "alice"}, {2, "bob"}};
    profile.profile().activeSession = 2;
    qlb::platform::SetCurrentSessionSource(
        std::make_unique<qlb::platform::EmbeddedSessionSource>(profile.profile()));
    EXPECT_EQ(ZVPROCESS::ActiveSessionUser(), "bob");
    profile.profile().activeSession.reset();
    qlb::platform::SetCurrentSessionSource(
        std::make_unique<qlb::platform::EmbeddedSessionSource>(profile.profile()));
    EXPECT_EQ(ZVPROCESS::ActiveSessionUser(), "");
    qlb::platform::SetCurrentSessionSource(nullptr);
}

TEST(SelfPath, JoinsTheProgramDirectoryWithAFileNameInEitherSeparator) {
    ZVPROCESS::HELPER::SetSelfDirectoryForTesting("/opt/qlb");
    std::wstring wide;
    std::string narrow;
    EXPECT_TRUE(ZVPROCESS::HELPER::GetSelfFullFilePath(wide, L"MonProcess.dll"));
    EXPECT_EQ(wide, L"/opt/qlb/MonProcess.dll");
    EXPECT_TRUE(ZVPROCESS::HELPER::GetSelfFullFilePath(narrow, "\\PluginUpdate.dll"));
    EXPECT_EQ(narrow, "/opt/qlb/PluginUpdate.dll");
    EXPECT_TRUE(ZVPROCESS::HELPER::GetSelfFullFilePath(narrow, "config\\plugincfg.xml"));
    EXPECT_EQ(narrow, "/opt/qlb/config/plugincfg.xml");
    ZVPROCESS::HELPER::SetSelfDirectoryForTesting({});
    EXPECT_TRUE(ZVPROCESS::HELPER::GetSelfFullFilePath(narrow, "x"));
    EXPECT_EQ(fs::path(narrow).parent_path(), qlb::ProgramDir());
}

}  // namespace
