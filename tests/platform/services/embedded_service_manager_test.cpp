#include "platform/services/embedded_service_manager.h"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "platform/services/service_database.h"
#include "platform/services/service_dispatcher.h"
#include "platform/sessions/session_source.h"
#include "platform/sync/clock.h"
#include "runtime/common/machine_profile.h"
#include "runtime/registry/registry_store.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace qlb::platform {
namespace {

namespace fs = std::filesystem;
using qlb::testing::Eventually;

// Registrations go to a registry store of the test's own.
class EmbeddedManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        registry::RegistryStore::SetDefault(registry::RegistryStore::Open(dir_ / "reg.db").value);
    }
    void TearDown() override { registry::RegistryStore::SetDefault(nullptr); }
    ServiceConfig Config(const std::wstring& name, const fs::path& binary) {
        ServiceConfig c;
        c.name = name;
        c.displayName = name;
        c.binaryPath = binary.wstring();
        c.startType = SERVICE_DEMAND_START;
        return c;
    }
    qlb::testing::TempDir dir_;
    const MachineProfile profile_ = [this] {
        MachineProfile p;
        p.runDir = dir_ / "run";
        return p;
    }();
    EmbeddedSessionSource sessions_{profile_};
    std::unique_ptr<EmbeddedServiceManager> manager_ = std::make_unique<EmbeddedServiceManager>(
        MakeRegistryServiceDatabase(), MakeLinuxProcessApi(), dir_ / "run", &sessions_, 10000);
};

TEST_F(EmbeddedManagerTest, RegistrationLifecycleAndBadNames) {
    EXPECT_EQ(manager_->OpenService(L"Svc", 0).error, win::ERROR_SERVICE_DOES_NOT_EXIST);
    ASSERT_TRUE(manager_->CreateService(Config(L"Svc", "/bin/true")).ok());
    EXPECT_TRUE(manager_->OpenService(L"SVC", 0).ok());
    EXPECT_EQ(manager_->CreateService(Config(L"svc", "/bin/false")).error, win::ERROR_SERVICE_EXISTS);
    EXPECT_EQ(manager_->QueryServiceConfig(L"svc").value.binaryPath, L"/bin/true");
    // Never started: stopped, and controls find nobody.
    EXPECT_EQ(manager_->QueryServiceStatus(L"svc").value.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(manager_->ControlService(L"svc", SERVICE_CONTROL_STOP, 0, 0).error,
              win::ERROR_SERVICE_NOT_ACTIVE);
    ASSERT_TRUE(manager_->ChangeStartType(L"svc", SERVICE_DISABLED).ok());
    EXPECT_EQ(manager_->QueryServiceConfig(L"svc").value.startType, SERVICE_DISABLED);
    ASSERT_TRUE(manager_->DeleteService(L"svc").ok());
    EXPECT_EQ(manager_->DeleteService(L"svc").error, win::ERROR_SERVICE_DOES_NOT_EXIST);
    // Names that could leave the state directory are refused.
    EXPECT_EQ(manager_->OpenService(L"", 0).error, win::ERROR_INVALID_NAME);
    EXPECT_EQ(manager_->CreateService(Config(L"a/b", "/bin/true")).error, win::ERROR_INVALID_NAME);
    EXPECT_EQ(manager_->StartService(L"..\\x").error, win::ERROR_INVALID_NAME);
}

TEST_F(EmbeddedManagerTest, StartOfAMissingUnrunnableOrDisabledBinaryFailsAndLeavesItStopped) {
    const fs::path unrunnable = dir_ / "service.sh";  // created without the execute bits
    std::ofstream(unrunnable) << "#!/bin/sh\n";
    const struct {
        fs::path binary;
        DWORD startType;
        std::uint32_t error;
    } cases[] = {
        {dir_ / "nope", SERVICE_DEMAND_START, win::ERROR_FILE_NOT_FOUND},
        {unrunnable, SERVICE_DEMAND_START, win::ERROR_ACCESS_DENIED},
        {"/bin/true", SERVICE_DISABLED, win::ERROR_SERVICE_DISABLED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.binary);
        auto config = Config(L"svc", c.binary);
        config.startType = c.startType;
        (void)manager_->DeleteService(L"svc");
        ASSERT_TRUE(manager_->CreateService(config).ok());
        EXPECT_EQ(manager_->StartService(L"svc").error, c.error);
        EXPECT_EQ(manager_->QueryServiceStatus(L"svc").value.dwCurrentState, SERVICE_STOPPED);
    }
}

TEST_F(EmbeddedManagerTest, LogonAndUnlockMoveTheConsoleEvenToAStoppedService) {
    ASSERT_TRUE(manager_->CreateService(Config(L"svc", "/bin/true")).ok());
    (void)manager_->ControlService(L"svc", SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, 3);
    EXPECT_EQ(sessions_.ActiveConsoleSessionId(), 3u);
    (void)manager_->ControlService(L"svc", SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOCK, 4);
    EXPECT_EQ(sessions_.ActiveConsoleSessionId(), 3u);
    (void)manager_->ControlService(L"svc", SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_UNLOCK, 5);
    EXPECT_EQ(sessions_.ActiveConsoleSessionId(), 5u);
}

// --- control delivery through the dispatcher, with this test process as the service process ---

// This test process as the service: its ServiceMain goes running and stops when told.
std::atomic<int> g_handled{0};
std::atomic<DWORD> g_lastSession{0};
std::atomic<std::uint32_t> g_lateReportError{0};
ManualResetEvent g_goRunning;
ManualResetEvent g_letStop;  // the test has seen the stop control's reply
SERVICE_STATUS_HANDLE g_handle = nullptr;

SysStatus Report(DWORD state, DWORD accepted) {
    const SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, accepted, 0, 0, 0, 0};
    return SetServiceStatus(g_handle, &status);
}

DWORD TestHandler(DWORD control, DWORD, void* data, void*) {
    if (control == SERVICE_CONTROL_SESSIONCHANGE && data) {
        g_lastSession = static_cast<WTSSESSION_NOTIFICATION*>(data)->dwSessionId;
    }
    if (control == SERVICE_CONTROL_STOP) {
        (void)Report(SERVICE_STOP_PENDING, 0xC5);
    }
    ++g_handled;
    return 0;
}

void TestServiceMain(DWORD, wchar_t**) {
    g_handle = RegisterServiceCtrlHandlerExW(L"InProc", TestHandler, nullptr).value;
    (void)Report(SERVICE_START_PENDING, 0xC4);
    g_goRunning.Wait(INFINITE);
    (void)Report(SERVICE_RUNNING, 0xC5);
    g_letStop.Wait(INFINITE);
    (void)Report(SERVICE_STOPPED, 0);
    // A report that comes after the stopped one (the handler's closing report losing the race) must
    // not bring the service back to life.
    g_lateReportError = Report(SERVICE_STOP_PENDING, 0xC5).error;
}

TEST_F(EmbeddedManagerTest, ControlsReachTheHandlerOneAtATimeAndObeyTheMask) {
    ASSERT_TRUE(manager_->CreateService(Config(L"InProc", "/bin/true")).ok());
    // Publish this process as the one the manager started.
    ServiceStateRecord record;
    record.pid = ::getpid();
    record.processStartTime = ProcessStartTime(::getpid()).value();
    record.status.dwCurrentState = SERVICE_START_PENDING;
    ASSERT_TRUE(ServiceStateStore(dir_ / "run").Write(L"InProc", record).ok());
    SetServiceProcessHost(std::make_unique<EmbeddedServiceProcessHost>(dir_ / "run"));

    SysStatus dispatched = SysStatus::Fail(1);
    std::thread dispatcher([&] {
        const SERVICE_TABLE_ENTRYW table[] = {{L"InProc", TestServiceMain}, {nullptr, nullptr}};
        dispatched = StartServiceCtrlDispatcherW(table);
    });
    ASSERT_TRUE(
        Eventually([&] { return manager_->QueryServiceStatus(L"InProc").value.dwControlsAccepted == 0xC4; }));

    // Stop is not in the start-pending mask: refused, and the handler never sees it.
    EXPECT_EQ(manager_->ControlService(L"InProc", SERVICE_CONTROL_STOP, 0, 0).error,
              win::ERROR_INVALID_SERVICE_CONTROL);
    EXPECT_EQ(g_handled.load(), 0);

    // A session change is accepted while pending, and has run when the call returns.
    const auto session =
        manager_->ControlService(L"InProc", SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOCK, 9);
    ASSERT_TRUE(session.ok()) << session.error;
    EXPECT_EQ(g_handled.load(), 1);
    EXPECT_EQ(g_lastSession.load(), 9u);

    g_goRunning.Set();
    ASSERT_TRUE(Eventually(
        [&] { return manager_->QueryServiceStatus(L"InProc").value.dwCurrentState == SERVICE_RUNNING; }));
    // Pause is in no mask this service publishes.
    EXPECT_EQ(manager_->ControlService(L"InProc", SERVICE_CONTROL_PAUSE, 0, 0).error,
              win::ERROR_INVALID_SERVICE_CONTROL);

    const auto stop = manager_->ControlService(L"InProc", SERVICE_CONTROL_STOP, 0, 0);
    ASSERT_TRUE(stop.ok()) << stop.error;
    EXPECT_EQ(stop.value.dwCurrentState, SERVICE_STOP_PENDING);
    g_letStop.Set();
    dispatcher.join();
    EXPECT_TRUE(dispatched.ok());
    EXPECT_EQ(manager_->QueryServiceStatus(L"InProc").value.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(g_lateReportError.load(), win::ERROR_INVALID_HANDLE);
    EXPECT_EQ(manager_->ControlService(L"InProc", SERVICE_CONTROL_INTERROGATE, 0, 0).error,
              win::ERROR_SERVICE_NOT_ACTIVE);
    EXPECT_FALSE(fs::exists(ServiceStateStore(dir_ / "run").SocketFile(L"InProc")));
}

}  // namespace
}  // namespace qlb::platform
