#include "tools/qlbsc/sc_commands.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/services/testing/fake_service_control.h"

namespace qlb::sc {
namespace {

using ::testing::HasSubstr;

using platform::testing::FakeServiceControlManager;

struct Outcome {
    int code;
    std::string text;
};

Outcome RunSc(FakeServiceControlManager& scm, std::vector<std::string> args) {
    std::ostringstream out;
    const int code = Run(args, scm, out);
    return {code, out.str()};
}

// The query verb end to end (a running service, the interactive type) is in the lifecycle test.
TEST(QlbscQuery, StatusBlockInTheConsoleToolsLayout) {
    const SERVICE_STATUS s{0x10, SERVICE_STOP_PENDING, 0xC4, 1067, 0, 3, 3000};
    EXPECT_EQ(FormatStatus(L"Svc", s),
              "\nSERVICE_NAME: Svc\n"
              "        TYPE               : 10  WIN32_OWN_PROCESS\n"
              "        STATE              : 3  STOP_PENDING\n"
              "                                (NOT_STOPPABLE, NOT_PAUSABLE, ACCEPTS_SHUTDOWN)\n"
              "        WIN32_EXIT_CODE    : 1067  (0x42b)\n"
              "        SERVICE_EXIT_CODE  : 0  (0x0)\n"
              "        CHECKPOINT         : 0x3\n"
              "        WAIT_HINT          : 0xbb8\n");
}

// The texts of 1062 and 1052 are checked against the real manager in the lifecycle test.
TEST(QlbscFailures, UnknownServiceOrSecondStartGivesItsTextAndStatusOne) {
    FakeServiceControlManager scm;
    for (const char* verb : {"query", "qc", "start", "stop", "delete"}) {
        const auto r = RunSc(scm, {verb, "Nope"});
        EXPECT_EQ(r.code, 1) << verb;
        EXPECT_EQ(r.text,
                  "[SC] OpenService FAILED 1060:\n\n"
                  "The specified service does not exist as an installed service.\n\n")
            << verb;
    }
    scm.AddService(L"Svc", SERVICE_RUNNING);
    const auto r = RunSc(scm, {"start", "Svc"});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.text, "[SC] StartService FAILED 1056:\n\nAn instance of the service is already running.\n\n");
}

TEST(QlbscCreate, RegistersWithOptionsOrDemandStartAndRefusesADuplicate) {
    FakeServiceControlManager scm;
    auto r =
        RunSc(scm, {"create", "Svc", "binPath=", "/opt/svc", "start=", "auto", "DisplayName=", "My Svc"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.text, "[SC] CreateService SUCCESS\n");
    const auto& c = scm.Get(L"Svc").config;
    EXPECT_EQ(c.binaryPath, L"/opt/svc");
    EXPECT_EQ(c.startType, SERVICE_AUTO_START);
    EXPECT_EQ(c.displayName, L"My Svc");
    r = RunSc(scm, {"create", "Svc", "binPath=", "/opt/svc"});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.text.rfind("[SC] CreateService FAILED 1073:", 0), 0u);
    EXPECT_EQ(RunSc(scm, {"create", "Other", "binPath=", "/x"}).code, 0);
    EXPECT_EQ(scm.Get(L"Other").config.startType, SERVICE_DEMAND_START);
}

TEST(QlbscConfig, ChangedStartTypeShowsInTheRegistration) {
    FakeServiceControlManager scm;
    scm.AddService(L"Svc", SERVICE_STOPPED, L"/opt/svc");
    auto r = RunSc(scm, {"config", "Svc", "start=", "disabled"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.text, "[SC] ChangeServiceConfig SUCCESS\n");
    r = RunSc(scm, {"qc", "Svc"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.text.rfind("[SC] QueryServiceConfig SUCCESS\n\nSERVICE_NAME: Svc\n", 0), 0u);
    EXPECT_THAT(r.text, HasSubstr("        BINARY_PATH_NAME   : /opt/svc\n"));
    EXPECT_THAT(r.text, HasSubstr("        START_TYPE         : 4   DISABLED\n"));
}

// Named events are sent end to end in the lifecycle test; numbers stand for any event or control.
TEST(QlbscControl, NumbersStandForEventsSessionsAndControls) {
    FakeServiceControlManager scm;
    scm.AddService(L"Svc", SERVICE_RUNNING);
    EXPECT_EQ(RunSc(scm, {"control", "Svc", "sessionchange", "0x7", "0x10"}).code, 0);
    EXPECT_EQ(scm.lastControl.control, SERVICE_CONTROL_SESSIONCHANGE);
    EXPECT_EQ(scm.lastControl.eventType, WTS_SESSION_LOCK);
    EXPECT_EQ(scm.lastControl.sessionId, 16u);
    EXPECT_EQ(RunSc(scm, {"control", "Svc", "powerevent", "ResumeAutomatic"}).code, 0);
    EXPECT_EQ(scm.lastControl.eventType, static_cast<DWORD>(PBT_APMRESUMEAUTOMATIC));
    EXPECT_EQ(RunSc(scm, {"control", "Svc", "200"}).code, 0);
    EXPECT_EQ(scm.lastControl.control, 200u);
}

TEST(QlbscUsage, MalformedCommandLinesAreStatusOneAndSendNothing) {
    FakeServiceControlManager scm;
    scm.AddService(L"Svc", SERVICE_RUNNING);
    const std::vector<std::string> cases[] = {
        {},
        {"frobnicate", "Svc"},
        {"query"},
        {"query", "a", "b"},
        {"control", "Svc", "sessionchange", "logon"},
        {"control", "Svc", "sessionchange", "logon", "x"},
        {"control", "Svc", "powerevent"},
        {"control", "Svc", "twelve"},
        {"control", "Svc", "12a"},
        {"control", "Svc", "99999999999"},
        {"create", "Other", "start=", "auto"},
        {"create", "Other", "binPath="},
        {"create", "Other", "binPath=", "/x", "start=", "sometimes"},
        {"config", "Svc", "type=", "own"},
    };
    for (const auto& args : cases) {
        EXPECT_EQ(RunSc(scm, args).code, 1) << ::testing::PrintToString(args);
    }
    EXPECT_EQ(scm.CountCalls("ControlService"), 0);
    EXPECT_FALSE(scm.Has(L"Other"));
}

}  // namespace
}  // namespace qlb::sc
