// The text of an elapsed time: whole milliseconds, with the overflow and zero-frequency cases counted
// as -1 microseconds (0 in whole milliseconds, as the division truncates toward zero).

#include <gtest/gtest.h>

#include "runtime/common/elapsed_timer.h"

namespace {

TEST(ElapsedTimer, TextIsWholeMillisecondsTruncated) {
    const struct {
        std::int64_t ticks;
        std::int64_t frequency;
        const char* text;
    } cases[] = {
        {10'000'000, 10'000'000, "1000"},
        {19'999, 10'000'000, "1"},  // 1.9999 ms
        {9'999, 10'000'000, "0"},
        // The last difference before the bound is still measured.
        {9'223'372'036'854, 10'000'000, "922337203"},
        {9'223'372'036'854, 1'000'000'000, "9223372"},
        {ElapsedTimer::kOverflowDifference, 10'000'000, "0"},
        {INT64_MAX, 10'000'000, "0"},
        {5'000'000, 0, "0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ElapsedTimer::Format(c.ticks, c.frequency), c.text) << c.ticks << " at " << c.frequency;
    }
}

}  // namespace
