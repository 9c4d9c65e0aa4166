// Process control requests on real processes under the product's names, in a program directory of
// the test's own: starting the message centre, ending processes by name and by force, waiting.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstring>
#include <stdexcept>

#include "messageservice/process_control.h"
#include "messageservice/service_msg_client.h"
#include "platform/processes/fake_process_api.h"
#include "runtime/common/strings.h"
#include "runtime/ipc/ipc_test_support.h"
#include "runtime/process/process_utils.h"
#include "runtime/process/support/process_test_support.h"

namespace {

namespace fs = std::filesystem;
using namespace qlb::testing;

std::vector<unsigned long> PidsOf(const std::wstring& name) {
    std::vector<unsigned long> pids;
    (void)ZVPROCESS::HELPER::QueryPidByProcessName(name, pids, ZVPROCESS::HELPER::QUERY_PROCESS_ALL);
    return pids;
}

// The processes of that name whose executable lies in `dir`: those of this test, not of others
// running beside it.
std::vector<unsigned long> PidsIn(const std::wstring& name, const fs::path& dir) {
    std::vector<unsigned long> pids;
    for (const unsigned long pid : PidsOf(name)) {
        std::error_code ec;
        if (fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec).parent_path() == dir) {
            pids.push_back(pid);
        }
    }
    return pids;
}

// Names of the test's own for the operations that end every process of a name, so that nothing of
// another test or program is touched.
std::wstring UniqueName(const std::string& stem) {
    return DE::ANSIToUnicode(stem + std::to_string(::getpid()) + ".exe");
}

class ProcessControl : public ::testing::Test {
  protected:
    OpenTempDir dir;
    MinisignKey key{dir.path(), "maker"};
    ProfileScope profile{dir.path(), {key.publicKey()}};
    LogCapture log;
    ServiceMsgClient handlers;
    std::vector<unsigned long> startedByTest;

    void SetUp() override { ZVPROCESS::HELPER::SetSelfDirectoryForTesting(dir.path()); }
    void TearDown() override {
        for (const unsigned long pid : startedByTest) {
            ::kill(static_cast<pid_t>(pid), SIGKILL);
        }
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting({});
        qlb::platform::SetProcessesForTesting(nullptr);
    }
    void InstallMonProcess(bool sign) {
        fs::copy_file(QLB_MONPROCESS_DLL, dir / "MonProcess.dll", fs::copy_options::overwrite_existing);
        if (sign) {
            key.Sign(dir / "MonProcess.dll");
        }
    }
    void ForceKill(const std::string& text) {
        std::vector<unsigned char> payload(text.begin(), text.end());
        payload.push_back('\0');
        auto item = qlb::ipc::test::MakeItem(0, 0, 0x30078, payload.data(), static_cast<int>(payload.size()));
        handlers.OnForceKill(item);
    }
    bool Logged(const std::string& text, const std::string& function) const {
        return log.Has("ERROR", text + "(ServiceMsgClient::" + function + ")");
    }
};

// --- Starting the message centre -------------------------------------------------------------------

TEST_F(ProcessControl, StartMsgCenterStartsTheMessageCentreOfTheProgramDirectoryOnceOrLogsWhyNot) {
    if (!PidsOf(L"QLBMessageCenter.exe").empty()) {
        GTEST_SKIP() << "a message centre of another installation runs on this machine";
    }
    TagIPCMessageItem item;
    handlers.OnStartMsgCenter(item);
    EXPECT_TRUE(Logged("StartUserProcessWithPrivilege failed", "StartMsgCenterProcess"));

    InstallHelper(dir.path(), "QLBMessageCenter.exe");
    handlers.OnStartMsgCenter(item);
    EXPECT_TRUE(Eventually([&] { return PidsIn(L"QLBMessageCenter.exe", dir.path()).size() == 1; }));
    handlers.OnStartMsgCenter(item);  // it runs now: not started twice
    startedByTest = PidsIn(L"QLBMessageCenter.exe", dir.path());
    EXPECT_EQ(startedByTest.size(), 1u);
    EXPECT_TRUE(
        Logged("QueryPidByProcessName vecPids.size is not 0 OR lResult:ERROR", "StartMsgCenterProcess"));
}

// --- Ending a process by force --------------------------------------------------------------------

TEST_F(ProcessControl, ForceKillOfAProcessThatEndsWithinTheGraceLoadsNoModule) {
    InstallMonProcess(true);
    HelperProcess child(InstallHelper(dir.path(), "Tessalink.exe"), {"--exit-after", "200"});
    ForceKill(std::to_string(child.pid()));
    EXPECT_TRUE(child.Ended());
    EXPECT_TRUE(log.Has("WARN", "OnForceKill in(ServiceMsgClient::OnForceKill)"));
    EXPECT_TRUE(Logged("OnForceKill pid: " + std::to_string(child.pid()), "OnForceKill"));
    EXPECT_TRUE(Logged("OnForceKill open Handle", "OnForceKill"));
    EXPECT_FALSE(log.HasText("OnForceKill done: "));
    EXPECT_FALSE(Mapped(dir / "MonProcess.dll"));
}

TEST_F(ProcessControl, ForceKillEndsAProcessThatOutlivesTheGraceOnlyThroughASignedModule) {
    InstallMonProcess(false);
    const auto image = InstallHelper(dir.path(), "Tessalink.exe");
    HelperProcess spared(image);
    ForceKill(std::to_string(spared.pid()));
    EXPECT_TRUE(Logged("OnForceKill done: ", "OnForceKill"));
    EXPECT_FALSE(spared.Ended()) << "an unsigned module must never be loaded";
    EXPECT_FALSE(Mapped(dir / "MonProcess.dll"));

    InstallMonProcess(true);
    HelperProcess child(image);
    ForceKill(std::to_string(child.pid()));
    EXPECT_TRUE(Eventually([&] { return child.Ended(); }));
    EXPECT_FALSE(log.HasText("kill process id:"));
}

TEST_F(ProcessControl, ForceKillOfAVanishedProcessFindsNothingAndAModuleRefusalIsLogged) {
    pid_t gone = ::fork();
    if (gone == 0) {
        ::_exit(0);
    }
    ::waitpid(gone, nullptr, 0);
    ForceKill(std::to_string(gone));
    EXPECT_TRUE(Logged("OnForceKill no find: ", "OnForceKill"));
    EXPECT_FALSE(log.HasText("OnForceKill open Handle"));
    // The first process of the machine outlives any grace, and the module never ends it.
    InstallMonProcess(true);
    ForceKill("1");
    EXPECT_TRUE(Logged("kill process id:1, result:5", "KillProcessByDriver"));
}

TEST_F(ProcessControl, ForceKillPayloadIsRefusedWhenMissingAndReadOnlyUpToItsLength) {
    TagIPCMessageItem item;
    handlers.OnForceKill(item);
    unsigned char payload[] = {'9', '9', '9', '9', '9', '9', '9', '1', '2', '3'};
    item.data = payload;
    item.dataLength = 0;
    handlers.OnForceKill(item);
    EXPECT_EQ(log.Count("OnForceKill msg ERROR(ServiceMsgClient::OnForceKill)"), 2);

    item.dataLength = 7;
    handlers.OnForceKill(item);
    EXPECT_TRUE(Logged("OnForceKill pid: 9999999", "OnForceKill"));
    EXPECT_TRUE(Logged("OnForceKill no find: ", "OnForceKill"));
    // Text that is no number leaves the handler by the conversion's exception.
    EXPECT_THROW(ForceKill("abc"), std::invalid_argument);
}

TEST(ProcessIdText, ConvertsAsA32BitStoul) {
    const std::pair<const char*, DWORD> numbers[] = {
        {"1234", 1234u},     {"  42abc", 42u}, {"4294967295", 0xFFFFFFFFu},
        {"-1", 0xFFFFFFFFu}, {"-0", 0u},       {"-4294967295", 1u}};
    auto parse = [](const char* text) {
        return qlb::process_control::ParseProcessIdText(reinterpret_cast<const unsigned char*>(text),
                                                        static_cast<std::int32_t>(std::strlen(text) + 1));
    };
    for (const auto& [text, value] : numbers) {
        EXPECT_EQ(parse(text), value) << text;
    }
    EXPECT_THROW(parse("4294967296"), std::out_of_range);
    EXPECT_THROW(parse("-4294967296"), std::out_of_range);
    EXPECT_THROW(parse("x1"), std::invalid_argument);
    EXPECT_THROW(parse(""), std::invalid_argument);
}

// --- Ending processes by name ---------------------------------------------------------------------

TEST_F(ProcessControl, KillProcessEndsEveryProcessOfTheNameThatOutlivesTheGrace) {
    const std::wstring name = UniqueName("TessalinkKill");
    const auto image = InstallHelper(dir.path(), qlb::W2U(name));
    HelperProcess a(image);
    HelperProcess b(image);
    HelperProcess graceful(image, {"--exit-after", "200"});
    ServiceMsgClient::KillProcess(name);
    EXPECT_TRUE(Eventually([&] { return a.Ended() && b.Ended() && graceful.Ended(); }));
    EXPECT_TRUE(Logged("KillProcess open Handle", "KillProcess"));
    EXPECT_TRUE(Logged("KillProcess done: " + std::to_string(a.pid()), "KillProcess"));
    EXPECT_TRUE(Logged("KillProcess done: " + std::to_string(b.pid()), "KillProcess"));
    EXPECT_FALSE(Logged("KillProcess done: " + std::to_string(graceful.pid()), "KillProcess"));
    const int lines = log.Count("KillProcess");
    ServiceMsgClient::KillProcess(L"NoSuchProgram-qlb.exe");  // matches nothing, does nothing
    EXPECT_EQ(log.Count("KillProcess"), lines);
}

TEST_F(ProcessControl, KillProcessLogsRefusedOpensAndFailedEnds) {
    qlb::platform::FakeProcessApi fake;
    fake.Add(1234, {L"Tessalink.exe", false, false, win::ERROR_ACCESS_DENIED, 0});
    fake.Add(1235, {L"Tessalink.exe", false, false, 0, win::ERROR_ACCESS_DENIED});
    qlb::platform::SetProcessesForTesting(&fake);
    ServiceMsgClient::KillProcess(L"Tessalink.exe");
    EXPECT_TRUE(Logged("KillProcess no find:1234", "KillProcess"));
    EXPECT_TRUE(Logged("KillProcess done: 1235", "KillProcess"));
    EXPECT_TRUE(Logged("KillProcess error code:5", "KillProcess"));
    EXPECT_EQ(fake.Calls(), (std::vector<std::string>{"snapshot", "open 1234", "open 1235", "wait 1235 1000",
                                                      "terminate 1235"}));
}

// --- Waiting for a process -------------------------------------------------------------------------

TEST_F(ProcessControl, WaitProcessExitWaitsForTheFirstProcessOfTheName) {
    const std::wstring name = UniqueName("TessalinkWait");
    const std::string narrow = qlb::W2U(name);
    HelperProcess child(InstallHelper(dir.path(), narrow), {"--exit-after", "300"});
    ServiceMsgClient::WaitProcessExit(name);
    EXPECT_TRUE(child.Ended());
    EXPECT_TRUE(Logged("WaitProcessExit begin process=" + narrow, "WaitProcessExit"));
    // The line names the user interface whichever process was waited for.
    EXPECT_TRUE(Logged("Tessalink.exe exit", "WaitProcessExit"));
    EXPECT_TRUE(Logged("WaitProcessExit end process=" + narrow, "WaitProcessExit"));
}

TEST_F(ProcessControl, WaitProcessExitEndsWithoutWaitingWhenNothingCanBeWaitedFor) {
    ServiceMsgClient::WaitProcessExit(L"QLBMessageCenter-absent.exe");
    EXPECT_TRUE(Logged("WaitProcessExit begin process=QLBMessageCenter-absent.exe", "WaitProcessExit"));
    EXPECT_FALSE(log.HasText("WaitProcessExit end"));

    qlb::platform::FakeProcessApi failing;
    failing.FailSnapshot(win::ERROR_ACCESS_DENIED);
    qlb::platform::SetProcessesForTesting(&failing);
    ServiceMsgClient::WaitProcessExit(L"Tessalink.exe");
    EXPECT_TRUE(Logged("WaitProcessExit CreateToolhelp32Snapshot failed", "WaitProcessExit"));

    qlb::platform::FakeProcessApi closed;
    closed.Add(77, {L"Tessalink.exe", false, false, win::ERROR_ACCESS_DENIED, 0});
    qlb::platform::SetProcessesForTesting(&closed);
    ServiceMsgClient::WaitProcessExit(L"tessalink.exe");
    EXPECT_FALSE(log.HasText("Tessalink.exe exit"));
    EXPECT_TRUE(Logged("WaitProcessExit end process=tessalink.exe", "WaitProcessExit"));
}

}  // namespace
