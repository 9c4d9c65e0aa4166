#include "platform/sync/clock.h"

#include <thread>

#include <gtest/gtest.h>

namespace qlb::platform {
namespace {

TEST(ManualResetEvent, TimesOutUntilSetThenStaysSet) {
    ManualResetEvent event;
    EXPECT_EQ(event.Wait(0), WAIT_TIMEOUT);
    event.Set();
    EXPECT_EQ(event.Wait(0), WAIT_OBJECT_0);
    EXPECT_EQ(event.Wait(INFINITE), WAIT_OBJECT_0);  // manual reset: still set
    event.Reset();
    EXPECT_EQ(event.Wait(0), WAIT_TIMEOUT);
}

TEST(ManualResetEvent, WakesAWaiterOnAnotherThread) {
    ManualResetEvent event;
    DWORD result = WAIT_FAILED;
    std::thread waiter([&] { result = event.Wait(INFINITE); });
    event.Set();
    waiter.join();
    EXPECT_EQ(result, WAIT_OBJECT_0);
}

TEST(SystemClock, WaitOnNullEventFails) {
    EXPECT_EQ(RealClock().WaitForEvent(nullptr, 10), WAIT_FAILED);
}

}  // namespace
}  // namespace qlb::platform
