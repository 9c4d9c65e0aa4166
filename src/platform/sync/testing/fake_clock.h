#pragma once
// A clock for tests: sleeps return at once and are recorded; an event wait reports a time-out as
// many times as scripted, then waits for the event itself, so a 24-hour round takes no time.

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/sync/clock.h"

namespace qlb::platform::testing {

class FakeClock final : public Clock {
  public:
    void Sleep(DWORD ms) override {
        std::function<void()> hook;
        {
            std::lock_guard lock(mutex_);
            sleeps_.push_back(ms);
            hook = onSleep;
        }
        if (hook) {
            hook();
        }
    }
    DWORD WaitForEvent(ManualResetEvent* event, DWORD ms) override {
        {
            std::lock_guard lock(mutex_);
            waits_.push_back(ms);
            if (timeoutsLeft > 0) {
                --timeoutsLeft;
                return WAIT_TIMEOUT;
            }
        }
        return event ? event->Wait(INFINITE) : WAIT_FAILED;
    }

    std::vector<DWORD> Sleeps() const {
        std::lock_guard lock(mutex_);
        return sleeps_;
    }
    std::vector<DWORD> Waits() const {
        std::lock_guard lock(mutex_);
        return waits_;
    }

    int timeoutsLeft = 0;           // set before use
    std::function<void()> onSleep;  // runs after each recorded sleep

  private:
    mutable std::mutex mutex_;
    std::vector<DWORD> sleeps_;
    std::vector<DWORD> waits_;
};

}  // namespace qlb::platform::testing
