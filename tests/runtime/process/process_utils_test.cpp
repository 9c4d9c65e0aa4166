// Finding the product's processes by image name and starting them in the user's session.

#include <signal.h>
#include <sys/wait.h>

#include <fstream>

#include <gtest/gtest.h>

#include "platform/processes/fake_process_api.h"
#include "platform/sessions/session_source.h"
#include "runtime/common/program_dir.h"
#include "runtime/common/strings.h"
#include "runtime/process/process_utils.h"
#include "runtime/process/support/process_test_support.h"

namespace {

namespace fs = std::filesystem;
using qlb::testing::ChildProcess;
using qlb::testing::InstallHelper;
using qlb::testing::TempDir;

// Ends, by its id, a process the test had started through the product's start function.
struct StartedProcess {
    DWORD pid = 0;
    ~StartedProcess() {
        if (pid != 0) {
            ::kill(static_cast<pid_t>(pid), SIGKILL);
        }
    }
};

std::string StatusField(DWORD pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(field + ":", 0) == 0) {
            return line.substr(field.size() + 1);
        }
    }
    return {};
}

class ProcessLookup : public ::testing::Test {
  protected:
    TempDir dir;
};

// Names of the test's own, so that processes of other tests running beside it never match.
std::string UniqueName(const std::string& stem) {
    return stem + std::to_string(::getpid()) + ".exe";
}

TEST_F(ProcessLookup, FindsAProcessByItsImageNameWithoutRegardToCase) {
    const std::string name = UniqueName("QLBMessageCenterLookup");  // longer than a command name
    ChildProcess child(InstallHelper(dir.path(), name));
    DWORD pid = 0;
    EXPECT_EQ(PsQueryProcessIdByName(DE::ANSIToUnicode(qlb::ToLowerAscii(name)).c_str(), pid), 0);
    EXPECT_EQ(pid, static_cast<DWORD>(child.pid()));
}

TEST_F(ProcessLookup, ANameThatMatchesNothingLeavesThePidAlone) {
    DWORD pid = 4242;
    EXPECT_EQ(PsQueryProcessIdByName(L"NoSuchProgram-qlb.exe", pid), static_cast<long>(win::ERROR_NOT_FOUND));
    EXPECT_EQ(pid, 4242u);
    std::vector<unsigned long> pids;
    EXPECT_EQ(ZVPROCESS::HELPER::QueryPidByProcessName(L"NoSuchProgram-qlb.exe", pids,
                                                       ZVPROCESS::HELPER::QUERY_PROCESS_ALL),
              0);
    EXPECT_TRUE(pids.empty());
}

TEST_F(ProcessLookup, ListsEveryProcessOfTheNameAndNoOther) {
    const auto image = InstallHelper(dir.path(), "Tessalink.exe");
    fs::create_directory(dir / "other");
    ChildProcess a(image);
    ChildProcess b(InstallHelper(dir / "other", "Tessalink.exe"));
    ChildProcess c(InstallHelper(dir.path(), "Tessalink.exe.bak"));
    std::vector<unsigned long> pids;
    ASSERT_EQ(ZVPROCESS::HELPER::QueryPidByProcessName(L"Tessalink.exe", pids,
                                                       ZVPROCESS::HELPER::QUERY_PROCESS_ALL),
              0);
    std::sort(pids.begin(), pids.end());
    std::vector<unsigned long> expected{static_cast<unsigned long>(a.pid()),
                                        static_cast<unsigned long>(b.pid())};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(pids, expected);
}

TEST_F(ProcessLookup, AFailedSnapshotIsReportedAndFindsNothing) {
    qlb::platform::FakeProcessApi fake;
    fake.FailSnapshot(win::ERROR_ACCESS_DENIED);
    qlb::platform::SetProcessesForTesting(&fake);
    DWORD pid = 0;
    EXPECT_EQ(PsQueryProcessIdByName(L"QLBMessageCenter.exe", pid),
              static_cast<long>(win::ERROR_ACCESS_DENIED));
    EXPECT_EQ(pid, 0u);
    qlb::platform::SetProcessesForTesting(nullptr);
}

class ProcessStart : public ::testing::Test {
  protected:
    TempDir dir;
    void SetUp() override { ZVPROCESS::HELPER::SetSelfDirectoryForTesting(dir.path()); }
    void TearDown() override {
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting({});
        ZVPROCESS::SetActiveSessionUserResolver(nullptr);
    }
};

TEST_F(ProcessStart, StartsABareNameFromTheProgramDirectoryDetached) {
    InstallHelper(dir.path(), "Tessalink.exe");
    StartedProcess started;
    ASSERT_EQ(PsStartProcessWithCurrentPrivilege(L"Tessalink.exe", &started.pid, 0), 1u);
    ASSERT_NE(started.pid, 0u);
    EXPECT_TRUE(qlb::testing::Running(static_cast<pid_t>(started.pid)));
    // Not a child of the caller: nothing here has to reap it.
    EXPECT_EQ(::waitpid(static_cast<pid_t>(started.pid), nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(started.pid) + "/exe"), dir / "Tessalink.exe");
}

TEST_F(ProcessStart, AMissingProgramGivesZero) {
    DWORD pid = 0;
    EXPECT_EQ(PsStartProcessWithCurrentPrivilege(L"Tessalink.exe", &pid, 0), 0u);
    EXPECT_EQ(pid, 0u);
    EXPECT_EQ(PsStartProcessWithCurrentPrivilege(nullptr, &pid, 0), 0u);
    EXPECT_EQ(PsStartProcessWithCurrentPrivilege(L"", &pid, 0), 0u);
}

TEST_F(ProcessStart, RunsAsTheUserOfTheActiveSessionWhenPrivileged) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to start a program as another user";
    }
    InstallHelper(dir.path(), "Tessalink.exe");
    ZVPROCESS::SetActiveSessionUserResolver([] { return std::string("nobody"); });
    StartedProcess started;
    ASSERT_EQ(PsStartProcessWithCurrentPrivilege(L"Tessalink.exe", &started.pid, 0), 1u);
    const std::string uid = StatusField(started.pid, "Uid");
    EXPECT_EQ(uid.find("0\t"), std::string::npos) << uid;
    EXPECT_NE(uid.find("65534"), std::string::npos) << uid;
    // The program sees the user's own identity, not the service's.
    std::string environment =
        "\n" + qlb::testing::ReadFile("/proc/" + std::to_string(started.pid) + "/environ");
    std::replace(environment.begin(), environment.end(), '\0', '\n');
    EXPECT_NE(environment.find("\nUSER=nobody\n"), std::string::npos);
    EXPECT_EQ(environment.find("\nUSER=root\n"), std::string::npos);
}

TEST_F(ProcessStart, AnUnknownSessionUserFailsTheStart) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "an unprivileged service starts programs as itself";
    }
    InstallHelper(dir.path(), "Tessalink.exe");
    ZVPROCESS::SetActiveSessionUserResolver([] { return std::string("no-such-user-qlb"); });
    DWORD pid = 0;
    EXPECT_EQ(PsStartProcessWithCurrentPrivilege(L"Tessalink.exe", &pid, 0), 0u);
}

TEST_F(ProcessStart, SessionUserIsTheUserTheSessionLayerNamesForTheConsole) {
    qlb::testing::ProfileScope profile(dir.path());
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
