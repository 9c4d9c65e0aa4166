#include "servicehost/cservicemanager.h"

#include <gtest/gtest.h>

#include "servicehost/cservicemain.h"
#include "servicehost/qlbmainservice.h"
#include "test_machine.h"

namespace qlb::servicehost::testing {
namespace {

class CServiceManagerTest : public ::testing::Test {
  protected:
    FakeHost host{"scm"};
    platform::testing::FakeServiceControlManager& scm = *host.services;
    CServiceManager manager{scm};
};

// What a registration holds is checked end to end in the lifecycle test; here, how Install answers.
TEST_F(CServiceManagerTest, InstallReportsSuccessUnlessTheManagerCannotBeOpened) {
    scm.AddService(L"Old", SERVICE_STOPPED, L"/old/path");
    EXPECT_EQ(manager.Install(L"Old", L"Display", L"/new/path"), 1);
    EXPECT_EQ(scm.Get(L"Old").config.binaryPath, L"/old/path");
    EXPECT_EQ(scm.CountCalls("CreateService"), 0);

    scm.FailNext("CreateService", win::ERROR_ACCESS_DENIED);
    EXPECT_EQ(manager.Install(L"Svc", L"Svc", L"/bin/svc"), 1);
    EXPECT_FALSE(scm.Has(L"Svc"));

    scm.FailNext("Connect", 0);  // IsInstalled's open succeeds
    scm.FailNext("Connect", win::ERROR_ACCESS_DENIED);
    EXPECT_EQ(manager.Install(L"Svc", L"Svc", L"/bin/svc"), 0);
    EXPECT_EQ(CountLogLines("[CServiceManager::Install]: OpenSCManagerW Error: 5(CServiceManager::Install)"),
              1);
}

// Uninstalling a stopped service, and starting a stopped or a running one, are in the lifecycle test.
TEST_F(CServiceManagerTest, UninstallPollsWhileStopIsPendingThenDeletes) {
    scm.AddService(L"Svc", SERVICE_RUNNING);
    scm.QueueQueryStates({SERVICE_STOP_PENDING, SERVICE_STOP_PENDING, SERVICE_STOPPED});
    EXPECT_EQ(manager.Uninstall(L"Svc"), 1);
    EXPECT_FALSE(scm.Has(L"Svc"));
    EXPECT_EQ(host.clock->Sleeps(), (std::vector<DWORD>{1000, 1000, 1000}));
}

TEST_F(CServiceManagerTest, UninstallFailures) {
    scm.AddService(L"Svc", SERVICE_RUNNING);
    scm.QueueQueryStates({SERVICE_RUNNING});
    EXPECT_EQ(manager.Uninstall(L"Svc"), 0);
    EXPECT_TRUE(scm.Has(L"Svc"));

    // A failed delete still reports success.
    scm.AddService(L"Svc", SERVICE_STOPPED);
    scm.FailNext("DeleteService", win::ERROR_ACCESS_DENIED);
    EXPECT_EQ(manager.Uninstall(L"Svc"), 1);
    EXPECT_EQ(CountLogLines("Service Manager::Uninstall: fail to delete service. error=5"), 1);

    EXPECT_EQ(manager.Uninstall(L"Ghost"), 0);
    EXPECT_GE(CountLogLines(
                  "Service Manager::Uninstall: fail to Get Scm And SvrHandle.(CServiceManager::Uninstall)"),
              1);
}

TEST_F(CServiceManagerTest, StartupStartsOnlyAStoppedService) {
    scm.AddService(L"Pending", SERVICE_START_PENDING);
    EXPECT_EQ(manager.Startup(L"Pending"), 0);
    EXPECT_EQ(scm.CountCalls("StartService"), 0);

    scm.AddService(L"Svc", SERVICE_STOPPED);
    scm.FailNext("StartService", win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(manager.Startup(L"Svc"), 0);
    EXPECT_EQ(CountLogLines("[CServiceManager::Startup]: StartServiceW Error: 2"), 1);
    EXPECT_EQ(manager.Startup(L"Nope"), 0);
    EXPECT_GE(CountLogLines("[CServiceManager::Startup]: GetScmAndSvrHandle Error: 1060"), 1);
}

TEST_F(CServiceManagerTest, StopSendsTheStopControlOnlyToARunningServiceAndDoesNotWait) {
    scm.AddService(L"QuietSvc", SERVICE_STOPPED);
    const auto before = qlb::testing::ReadFile(MachineRoot() / "log" / "QuillbarService.log").size();
    EXPECT_EQ(manager.Stop(L"QuietSvc"), 0);
    EXPECT_EQ(qlb::testing::ReadFile(MachineRoot() / "log" / "QuillbarService.log").size(), before);
    EXPECT_EQ(scm.CountCalls("ControlService"), 0);

    scm.AddService(L"Svc", SERVICE_RUNNING);
    EXPECT_EQ(manager.Stop(L"Svc"), 1);
    EXPECT_EQ(scm.lastControl.control, SERVICE_CONTROL_STOP);
    EXPECT_TRUE(host.clock->Sleeps().empty());
    scm.FailNext("ControlService", win::ERROR_INVALID_SERVICE_CONTROL);
    EXPECT_EQ(manager.Stop(L"Svc"), 0);
    EXPECT_EQ(CountLogLines("Service Manager::Stop: fail to Control Service. error=1052"), 1);
}

TEST_F(CServiceManagerTest, GetServiceStateOfAnUnknownOrUnqueryableServiceIsAllOnes) {
    EXPECT_EQ(manager.GetServiceState(L"Unknown"), 0xFFFFFFFFul);
    scm.AddService(L"Svc", SERVICE_RUNNING);
    EXPECT_EQ(manager.GetServiceState(L"Svc"), static_cast<unsigned long>(SERVICE_RUNNING));
    scm.FailNext("QueryServiceStatus", win::ERROR_ACCESS_DENIED);
    EXPECT_EQ(manager.GetServiceState(L"Svc"), 0xFFFFFFFFul);
    EXPECT_EQ(CountLogLines("[CServiceManager::GetServiceState]: QueryServiceStatus Error: 5"), 1);
}

TEST_F(CServiceManagerTest, StartupMainServiceWaitsOnlyForAServiceItStarted) {
    scm.AddService(kMainServiceName, SERVICE_RUNNING);
    EXPECT_EQ(StartupMainService(manager), 0);
    EXPECT_TRUE(host.clock->Sleeps().empty());
}

TEST_F(CServiceManagerTest, StartupMainServiceGivesUpAfterFiftyOneSleepsOfOneHundredMilliseconds) {
    scm.AddService(kMainServiceName, SERVICE_STOPPED);
    const int before = CountLogLines("main service wait start up time out.(StartupMainService)");
    EXPECT_EQ(StartupMainService(manager), 0);
    EXPECT_EQ(host.clock->Sleeps(), std::vector<DWORD>(51, 100));
    EXPECT_EQ(CountLogLines("main service wait start up time out.(StartupMainService)"), before + 1);
}

// The switches end to end (case, unknown ones, /startup's wait for the service and its event) are in
// the lifecycle test.
TEST_F(CServiceManagerTest, ProcServiceOperationNoSwitchDoesNothingAndStatusOrStopOfAStoppedServiceAnswer) {
    EXPECT_EQ(ProcServiceOperation(nullptr), 0);
    EXPECT_TRUE(scm.Calls().empty());
    // Even a service that cannot be queried has a status.
    EXPECT_EQ(ProcServiceOperation(L"/status"), 1);
    scm.AddService(kMainServiceName, SERVICE_STOPPED);
    EXPECT_EQ(ProcServiceOperation(L"/stop"), 0);
    scm.AddService(kMainServiceName, SERVICE_RUNNING);
    EXPECT_EQ(ProcServiceOperation(L"/stop"), 1);
}

}  // namespace
}  // namespace qlb::servicehost::testing
