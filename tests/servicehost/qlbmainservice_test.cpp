#include "servicehost/qlbmainservice.h"

#include <gtest/gtest.h>

#include "servicehost/cservicemain.h"
#include "test_machine.h"

namespace qlb::servicehost::testing {
namespace {

TEST(StartupMainService, NothingStartedMeansNoWait) {
    FakeHost host("startup-none");
    host.services->AddService(kMainServiceName, SERVICE_RUNNING);
    CServiceManager manager;
    EXPECT_EQ(StartupMainService(manager), 0);
    EXPECT_TRUE(host.clock->Sleeps().empty());
}

TEST(StartupMainService, GivesUpAfterFiftyOneSleepsOfOneHundredMilliseconds) {
    FakeHost host("startup-timeout");
    host.services->AddService(kMainServiceName, SERVICE_STOPPED);
    CServiceManager manager;
    const int before = CountLogLines("main service wait start up time out.(StartupMainService)");
    EXPECT_EQ(StartupMainService(manager), 0);
    EXPECT_EQ(host.clock->Sleeps(), std::vector<DWORD>(51, 100));
    EXPECT_EQ(CountLogLines("main service wait start up time out.(StartupMainService)"), before + 1);
}

// The switches end to end (case, unknown ones, /startup's wait for the service and its event) are in
// the lifecycle test.
TEST(ProcServiceOperation, NoSwitchDoesNothingAndStatusOrStopOfAStoppedServiceAnswer) {
    FakeHost host("ops");
    EXPECT_EQ(ProcServiceOperation(nullptr), 0);
    EXPECT_TRUE(host.services->Calls().empty());
    // Even a service that cannot be queried has a status.
    EXPECT_EQ(ProcServiceOperation(L"/status"), 1);
    host.services->AddService(kMainServiceName, SERVICE_STOPPED);
    EXPECT_EQ(ProcServiceOperation(L"/stop"), 0);
    host.services->AddService(kMainServiceName, SERVICE_RUNNING);
    EXPECT_EQ(ProcServiceOperation(L"/stop"), 1);
}

}  // namespace
}  // namespace qlb::servicehost::testing
