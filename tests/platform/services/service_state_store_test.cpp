#include "platform/services/service_state_store.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "support/eventually.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace qlb::platform {
namespace {

TEST(StateStore, RecordIsReadBackUnderAnyCaseOfTheNameAndAMalformedOneAsNone) {
    const qlb::testing::TempDir dir;
    ServiceStateStore store(dir.Path());
    ServiceStateRecord r;
    r.pid = 1234;
    r.processStartTime = 99;
    r.status = SERVICE_STATUS{0x110, 4, 0xC5, 0, 0, 0, 0};
    ASSERT_TRUE(store.Write(L"QLBMainService", r).ok());
    const auto got = store.Read(L"qlbmainservice");
    ASSERT_TRUE(got);
    EXPECT_EQ(got->pid, 1234);
    EXPECT_EQ(got->processStartTime, 99u);
    EXPECT_EQ(got->status.dwCurrentState, 4u);
    EXPECT_EQ(got->status.dwControlsAccepted, 0xC5u);
    // A malformed record reads as none.
    std::ofstream(store.StatusFile(L"svc")) << "{\"pid\": \"x\"}";
    EXPECT_FALSE(store.Read(L"svc"));
    std::ofstream(store.StatusFile(L"svc")) << "not json";
    EXPECT_FALSE(store.Read(L"svc"));
    EXPECT_FALSE(store.Read(L"missing"));
}

TEST(ProcessLiveness, OwnProcessIsAliveOnlyWithItsStartTime) {
    ServiceStateRecord r;
    r.pid = ::getpid();
    r.processStartTime = ProcessStartTime(::getpid()).value();
    EXPECT_TRUE(IsRecordProcessAlive(r));
    // A reused pid shows another start time.
    r.processStartTime += 1;
    EXPECT_FALSE(IsRecordProcessAlive(r));
    EXPECT_FALSE(ProcessStartTime(0));
}

// A killed service counts as alive until its last thread ends, and dead once reaped.
TEST(ProcessLiveness, ProcessWhoseFirstThreadEndedLivesUntilItsLastThreadEnds) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::thread([] { ::pause(); }).detach();
        ::syscall(SYS_exit, 0);  // ends this thread only
    }
    ASSERT_GT(child, 0);
    const bool firstThreadIsZombie = qlb::testing::Eventually([child] {
        return qlb::testing::ReadFile("/proc/" + std::to_string(child) + "/stat").find(") Z ") !=
               std::string::npos;
    });
    EXPECT_TRUE(firstThreadIsZombie);
    EXPECT_TRUE(ProcessStartTime(child));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(ProcessStartTime(child));
}

}  // namespace
}  // namespace qlb::platform
