#include "servicehost/cservicemain.h"

#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "platform/services/service_dispatcher.h"
#include "servicehost/cservicemanager.h"
#include "servicehost/service_stages.h"
#include "test_machine.h"

namespace qlb::servicehost::testing {
namespace {

using platform::ControlRequest;
using platform::testing::FakeServiceProcessHost;

// A ServiceMain that only registers the real control handler and holds the dispatcher open, so the
// handler and ReportStatus can be driven one control at a time.
platform::ManualResetEvent g_releaseHolder;

void HoldingServiceMain(DWORD, wchar_t**) {
    g_hServiceStatus = RegisterServiceCtrlHandlerExW(kMainServiceName, ServiceCtrlHandler, nullptr).value;
    ReportStatus(nullptr, SERVICE_RUNNING, 0, 0);
    g_releaseHolder.Wait(INFINITE);
    ReportStatus(nullptr, SERVICE_STOPPED, 0, 0);
}

// The dispatcher on a thread of its own, with a fake manager side that records every status.
class DispatcherTest : public ::testing::Test {
  protected:
    void Dispatch(LPSERVICE_MAIN_FUNCTIONW serviceMain) {
        qlb::servicehost::ResetCheckPointForTest();
        InitServiceStatus();
        g_releaseHolder.Reset();
        auto fake = std::make_unique<FakeServiceProcessHost>();
        process_ = fake.get();
        platform::SetServiceProcessHost(std::move(fake));
        dispatcher_ = std::thread([this, serviceMain] {
            const SERVICE_TABLE_ENTRYW table[] = {{kMainServiceName, serviceMain}, {nullptr, nullptr}};
            dispatched_ = StartServiceCtrlDispatcherW(table);
        });
    }
    bool WaitForState(DWORD state) {
        return process_->WaitForStatus([state](const SERVICE_STATUS& s) { return s.dwCurrentState == state; },
                                       std::chrono::seconds(60));
    }
    // Ends the dispatcher whatever the test did.
    void Release() {
        g_releaseHolder.Set();
        if (g_hStopEvent) {
            g_hStopEvent->Set();
        }
        if (dispatcher_.joinable()) {
            dispatcher_.join();
        }
    }
    void TearDown() override {
        Release();
        g_hStopEvent = nullptr;
    }
    SysResult<SERVICE_STATUS> Send(DWORD control, DWORD eventType = 0, DWORD session = 0) {
        return process_->Send(ControlRequest{control, eventType, session}).get();
    }
    SERVICE_STATUS Last() {
        const auto statuses = process_->Statuses();
        return statuses.empty() ? SERVICE_STATUS{} : statuses.back();
    }

    FakeServiceProcessHost* process_ = nullptr;
    std::thread dispatcher_;
    SysStatus dispatched_ = SysStatus::Fail(1);
};

class ControlHandlerTest : public DispatcherTest {
  protected:
    void SetUp() override {
        g_hStopEvent = &stopEvent_;
        Dispatch(HoldingServiceMain);
        ASSERT_TRUE(WaitForState(SERVICE_RUNNING));
    }

    FakeHost host_{"handler"};
    platform::ManualResetEvent stopEvent_;
};

// The type and the running mask show in the lifecycle test's query.
TEST_F(ControlHandlerTest, ReportStatusMasksStopWhileStartIsPendingCountsCheckPointsAndLogsAFailure) {
    ReportStatus(nullptr, SERVICE_START_PENDING, 77, 3000);
    auto s = Last();
    EXPECT_EQ(s.dwControlsAccepted, 0xC4u);
    EXPECT_EQ(s.dwCheckPoint, 1u);
    EXPECT_EQ(s.dwWaitHint, 3000u);
    EXPECT_EQ(s.dwWin32ExitCode, 0u);  // the exit code argument is ignored
    ReportStatus(nullptr, SERVICE_START_PENDING, 0, 3000);
    EXPECT_EQ(Last().dwCheckPoint, 2u);
    ReportStatus(nullptr, SERVICE_RUNNING, 0, 0);
    EXPECT_EQ(Last().dwCheckPoint, 0u);
    // The counter is never reset: the next pending report goes on from where it was.
    ReportStatus(nullptr, SERVICE_STOP_PENDING, 0, 3000);
    EXPECT_EQ(Last().dwCheckPoint, 3u);
    EXPECT_EQ(Last().dwControlsAccepted, 0xC5u);
    // A report the manager refuses is logged.
    process_->setStatusError = win::ERROR_ACCESS_DENIED;
    ReportStatus(nullptr, SERVICE_RUNNING, 0, 0);
    process_->setStatusError = 0;
    EXPECT_GE(CountLogLines("set service status failed, error code=5(ReportStatus)"), 1);
}

TEST_F(ControlHandlerTest, LockRecordsTheSessionAndRepeatsTheRunningState) {
    ReportStatus(nullptr, SERVICE_RUNNING, 0, 1234);
    const auto reply = Send(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOCK, 4);
    ASSERT_TRUE(reply.ok());
    EXPECT_EQ(g_LastSessionId, 4u);
    const auto s = Last();
    EXPECT_EQ(s.dwCurrentState, 4u);
    EXPECT_EQ(s.dwCheckPoint, 0u);
    EXPECT_EQ(s.dwWaitHint, 0u);
    EXPECT_TRUE(Send(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGOFF, 6).ok());
    EXPECT_EQ(g_LastSessionId, 6u);
    // A logon is no disconnect: the last session stays.
    EXPECT_TRUE(Send(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, 8).ok());
    EXPECT_EQ(g_LastSessionId, 6u);
}

TEST_F(ControlHandlerTest, StopReportsPendingWithHintThenAgainWithNextCheckPointAndSetsTheEvent) {
    const auto before = process_->Statuses().size();
    const auto reply = Send(SERVICE_CONTROL_STOP);
    ASSERT_TRUE(reply.ok());
    EXPECT_TRUE(stopEvent_.IsSet());
    const auto statuses = process_->Statuses();
    ASSERT_EQ(statuses.size(), before + 2);
    EXPECT_EQ(statuses[before].dwCurrentState, 3u);
    EXPECT_EQ(statuses[before].dwWaitHint, 3000u);
    EXPECT_EQ(statuses[before + 1].dwCurrentState, 3u);
    EXPECT_EQ(statuses[before + 1].dwWaitHint, 0u);
    EXPECT_EQ(statuses[before + 1].dwCheckPoint, statuses[before].dwCheckPoint + 1);
}

// --- the whole life of the service, through the dispatcher, on fakes ---

TEST_F(DispatcherTest, ServiceStartsRunsDailyRoundsAndStopsInOrder) {
    FakeHost host("life");
    host.clock->timeoutsLeft = 2;  // two 24-hour rounds pass before the stop
    host.services->AddService(kLcdServiceName, SERVICE_STOPPED);
    const auto dailyBefore = SpoolRecordsOf("619000001").size();
    Dispatch(ServiceMain);
    ASSERT_TRUE(WaitForState(SERVICE_RUNNING));
    // The loop's mutex is the sign that the service is up.
    ASSERT_TRUE(Eventually([&] { return host.mutexes->Exists(kServiceMutexName); }));
    ASSERT_TRUE(Eventually([&] { return host.clock->Waits().size() == 3; }));
    EXPECT_EQ(host.clock->Waits(), (std::vector<DWORD>{86400000, 86400000, 86400000}));
    EXPECT_EQ(SpoolRecordsOf("619000001").size(), dailyBefore + 3);
    // LCD_Service was stopped, so the start-up started it.
    EXPECT_EQ(host.services->Get(kLcdServiceName).status.dwCurrentState, SERVICE_START_PENDING);

    ASSERT_TRUE(Send(SERVICE_CONTROL_STOP).ok());
    dispatcher_.join();
    EXPECT_TRUE(dispatched_.ok());
    EXPECT_FALSE(host.mutexes->Exists(kServiceMutexName));
    const auto statuses = process_->Statuses();
    ASSERT_GE(statuses.size(), 4u);
    EXPECT_EQ(statuses.front().dwCurrentState, 2u);
    EXPECT_EQ(statuses.front().dwWaitHint, 3000u);
    EXPECT_EQ(statuses[1].dwCurrentState, 4u);
    EXPECT_EQ(statuses.back().dwCurrentState, 1u);
    const auto power = SpoolRecordsOf("607006001");
    ASSERT_FALSE(power.empty());
    EXPECT_EQ(power.back()["infoText"], "1");
}

TEST_F(DispatcherTest, FailedStartUpStaysPendingWithStopMaskedUntilTheEventIsSet) {
    FakeHost host("life-fail");
    const fs::path aside = PluginConfig().string() + ".aside";
    fs::rename(PluginConfig(), aside);
    Dispatch(ServiceMain);
    // The daily loop runs although the start-up failed.
    const bool looping = Eventually([&] { return host.clock->Waits().size() == 1; });
    fs::rename(aside, PluginConfig());
    ASSERT_TRUE(looping) << "the daily loop never started";
    EXPECT_EQ(Last().dwCurrentState, 2u);
    EXPECT_EQ(Send(SERVICE_CONTROL_STOP).error, win::ERROR_INVALID_SERVICE_CONTROL);
    EXPECT_GE(CountLogLines("Service Main: fail to Init Service.(PrepareService)"), 1);
    Release();
    EXPECT_EQ(Last().dwCurrentState, 1u);
}

TEST(ServiceLoop, ExistingMutexIsJoinedAndAFailedWaitEndsTheLoop) {
    FakeHost host("loop");
    auto held = host.mutexes->Create(kServiceMutexName);
    ASSERT_TRUE(held.ok());
    g_hStopEvent = nullptr;  // the wait on a missing event fails at once
    ServiceMainLoop();
    EXPECT_EQ(host.clock->Waits().size(), 1u);
    EXPECT_FALSE(g_hServiceMutex);
    EXPECT_TRUE(host.mutexes->Exists(kServiceMutexName));  // someone else's handle still holds it
}

}  // namespace
}  // namespace qlb::servicehost::testing
