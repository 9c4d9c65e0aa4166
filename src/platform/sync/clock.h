#pragma once
// Waiting: the event the service hands over by (a manual-reset event, as CreateEventW(null, true,
// false, null) makes), and the clock that sleeps and waits. The service's loops wait through a Clock,
// so a test runs a 24-hour round or a 5.1-second start wait at once with a fake one.

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "runtime/common/win_types.h"

namespace qlb::platform {

class ManualResetEvent {
  public:
    void Set();
    void Reset();
    bool IsSet() const;
    // WAIT_OBJECT_0 once set, WAIT_TIMEOUT (258) when `ms` ran out; INFINITE waits for ever.
    DWORD Wait(DWORD ms);

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool set_ = false;
};

class Clock {
  public:
    virtual ~Clock() = default;
    virtual void Sleep(DWORD ms) = 0;
    // Sleeps `ms` like Sleep, but may return as soon as `done` holds: a caller that sleeps between
    // checks of a condition learns of it without waiting out the round.
    virtual void SleepUnless(DWORD ms, const std::function<bool()>& done) {
        (void)done;
        Sleep(ms);
    }
    // WaitForSingleObject on an event: WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED for a null event.
    virtual DWORD WaitForEvent(ManualResetEvent* event, DWORD ms) = 0;
};

class SystemClock final : public Clock {
  public:
    void Sleep(DWORD ms) override;
    void SleepUnless(DWORD ms, const std::function<bool()>& done) override;
    DWORD WaitForEvent(ManualResetEvent* event, DWORD ms) override;
};

Clock& RealClock();

}  // namespace qlb::platform
