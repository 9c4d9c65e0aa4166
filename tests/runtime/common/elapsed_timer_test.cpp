// The text of an elapsed time: whole milliseconds, with the overflow and zero-frequency cases counted
// as -1 microseconds.

#include <gtest/gtest.h>

#include <string>

#include "runtime/common/elapsed_timer.h"

namespace {

TEST(ElapsedTimerText, IsWholeMillisecondsTruncated) {
    EXPECT_EQ(ElapsedTimer::Format(10'000'000, 10'000'000), "1000");
    EXPECT_EQ(ElapsedTimer::Format(19'999, 10'000'000), "1");  // 1.9999 ms
    EXPECT_EQ(ElapsedTimer::Format(9'999, 10'000'000), "0");
    EXPECT_EQ(ElapsedTimer::Format(0, 10'000'000), "0");
    EXPECT_EQ(ElapsedTimer::Format(3'000, 3'000), "1000");  // any frequency
}

TEST(ElapsedTimerText, LastDifferenceBeforeTheBoundIsStillMeasured) {
    // 9,223,372,036,854 ticks at 10 MHz: 922,337,203,685 us.
    EXPECT_EQ(ElapsedTimer::Format(9'223'372'036'854, 10'000'000), "922337203");
    // At 1 GHz the product still fits: 9,223,372,036 us.
    EXPECT_EQ(ElapsedTimer::Format(9'223'372'036'854, 1'000'000'000), "9223372");
}

TEST(ElapsedTimerText, OverflowingDifferenceCountsAsMinusOneMicrosecond) {
    // -1 us in whole milliseconds is 0 (the division truncates toward zero).
    EXPECT_EQ(ElapsedTimer::Format(ElapsedTimer::kOverflowDifference, 10'000'000), "0");
    EXPECT_EQ(ElapsedTimer::Format(INT64_MAX, 10'000'000), "0");
}

TEST(ElapsedTimerText, ZeroFrequencyCountsAsMinusOneMicrosecond) {
    EXPECT_EQ(ElapsedTimer::Format(5'000'000, 0), "0");
}

TEST(ElapsedTimerClock, TextOfALiveTimerIsDigits) {
    const ElapsedTimer timer;
    EXPECT_GE(timer.Difference(), 0);
    const std::string text = timer.ToString();
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.find_first_not_of("0123456789"), std::string::npos);
    const std::wstring wide = timer.ToWString();
    EXPECT_EQ(wide.find_first_not_of(L"0123456789"), std::wstring::npos);
}

TEST(ElapsedTimerClock, CounterNeverRunsBackwards) {
    const auto first = ElapsedTimer::Now();
    const auto second = ElapsedTimer::Now();
    EXPECT_LE(first, second);
}

}  // namespace
