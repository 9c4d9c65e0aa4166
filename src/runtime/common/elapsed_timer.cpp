#include "runtime/common/elapsed_timer.h"

#include <time.h>

ElapsedTimer::ElapsedTimer() noexcept : start_(Now()), frequency_(kFrequency) {}

std::int64_t ElapsedTimer::Now() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * kFrequency + ts.tv_nsec / 100;
}

std::int64_t ElapsedTimer::Difference() const noexcept {
    return Now() - start_;
}

std::string ElapsedTimer::Format(std::int64_t difference, std::int64_t frequency) {
    std::int64_t microseconds = -1;
    if (difference < kOverflowDifference && frequency != 0) {
        microseconds = difference * 1'000'000 / frequency;
    }
    return std::to_string(microseconds / 1000);
}

std::string ElapsedTimer::ToString() const {
    return Format(Difference(), frequency_);
}

std::wstring ElapsedTimer::ToWString() const {
    const auto text = ToString();
    return std::wstring(text.begin(), text.end());
}
