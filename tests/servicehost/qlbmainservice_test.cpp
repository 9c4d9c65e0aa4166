#include "servicehost/qlbmainservice.h"

#include <gtest/gtest.h>

#include "runtime/common/program_dir.h"
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

TEST(StartupMainService, ReturnsOnceTheServiceMutexAppears) {
    FakeHost host("startup-ok");
    host.services->AddService(kMainServiceName, SERVICE_STOPPED);
    std::unique_ptr<platform::NamedMutexHandle> serviceSide;
    host.clock->onSleep = [&] {
        if (host.clock->Sleeps().size() == 3) {
            serviceSide = std::move(host.mutexes->Create(kServiceMutexName).value.handle);
        }
    };
    CServiceManager manager;
    EXPECT_EQ(StartupMainService(manager), 1);
    EXPECT_EQ(host.clock->Sleeps().size(), 3u);
}

TEST(ProcServiceOperation, UnknownOrMissingSwitchDoesNothing) {
    FakeHost host("ops-none");
    EXPECT_EQ(ProcServiceOperation(nullptr), 0);
    EXPECT_EQ(ProcServiceOperation(L"/help"), 0);
    EXPECT_TRUE(host.services->Calls().empty());
}

TEST(ProcServiceOperation, SwitchesMatchWithoutRegardToCase) {
    FakeHost host("ops-case");
    EXPECT_EQ(ProcServiceOperation(L"/INSTALL"), 1);
    ASSERT_TRUE(host.services->Has(kMainServiceName));
    EXPECT_EQ(host.services->Get(kMainServiceName).config.binaryPath, qlb::SelfPath().wstring());
    EXPECT_EQ(ProcServiceOperation(L"/Status"), 1);
    EXPECT_EQ(ProcServiceOperation(L"/Uninstall"), 1);
    EXPECT_FALSE(host.services->Has(kMainServiceName));
}

TEST(ProcServiceOperation, StatusOfAnUnqueryableServiceIsStillOne) {
    FakeHost host("ops-status");
    EXPECT_EQ(ProcServiceOperation(L"/status"), 1);
}

TEST(ProcServiceOperation, StartupReportsItsResultEvenWhenNothingStarted) {
    FakeHost host("ops-startup");
    host.services->AddService(kMainServiceName, SERVICE_RUNNING);
    const auto before = SpoolRecordsOf("619000002").size();
    EXPECT_EQ(ProcServiceOperation(L"/startup"), 0);
    const auto records = SpoolRecordsOf("619000002");
    ASSERT_EQ(records.size(), before + 1);
    EXPECT_EQ(records.back()["fields"]["0"], "main service");
    EXPECT_EQ(records.back()["fields"]["1"], "0");
}

TEST(ProcServiceOperation, StopOfAStoppedServiceIsZero) {
    FakeHost host("ops-stop");
    host.services->AddService(kMainServiceName, SERVICE_STOPPED);
    EXPECT_EQ(ProcServiceOperation(L"/stop"), 0);
    host.services->AddService(kMainServiceName, SERVICE_RUNNING);
    EXPECT_EQ(ProcServiceOperation(L"/stop"), 1);
}

}  // namespace
}  // namespace qlb::servicehost::testing
