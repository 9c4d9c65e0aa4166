#include "platform/sync/clock.h"

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

TEST(SystemClock, WaitOnNullEventFails) {
    EXPECT_EQ(RealClock().WaitForEvent(nullptr, 10), WAIT_FAILED);
}

}  // namespace
}  // namespace qlb::platform
