#pragma once
// A start count and the counter's frequency, to tell how long a step took in whole milliseconds.
// The counter ticks in units of 100 ns (a frequency of 10 MHz), so that the overflow bound below is the
// same span of time on every machine.

#include <cstdint>
#include <string>

class ElapsedTimer {
  public:
    static constexpr std::int64_t kFrequency = 10'000'000;
    // A difference this large would overflow the microsecond product.
    static constexpr std::int64_t kOverflowDifference = 9'223'372'036'855;

    ElapsedTimer() noexcept;

    // Counter ticks since the start.
    std::int64_t Difference() const noexcept;
    // Whole milliseconds since the start, as decimal digits.
    std::string ToString() const;
    std::wstring ToWString() const;

    // The text rule alone: difference * 1,000,000 / frequency microseconds, then / 1,000; an overflowing
    // difference or a zero frequency counts as -1 microseconds (which is "0" whole milliseconds).
    static std::string Format(std::int64_t difference, std::int64_t frequency);

    // The counter now, in ticks of kFrequency.
    static std::int64_t Now() noexcept;

  private:
    std::int64_t start_;
    std::int64_t frequency_;
};
