#include "platform/sync/clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace qlb::platform {

void ManualResetEvent::Set() {
    {
        std::lock_guard lock(mutex_);
        set_ = true;
    }
    cv_.notify_all();
}

void ManualResetEvent::Reset() {
    std::lock_guard lock(mutex_);
    set_ = false;
}

bool ManualResetEvent::IsSet() const {
    std::lock_guard lock(mutex_);
    return set_;
}

DWORD ManualResetEvent::Wait(DWORD ms) {
    std::unique_lock lock(mutex_);
    if (ms == INFINITE) {
        cv_.wait(lock, [this] { return set_; });
        return WAIT_OBJECT_0;
    }
    return cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return set_; }) ? WAIT_OBJECT_0
                                                                                      : WAIT_TIMEOUT;
}

void SystemClock::Sleep(DWORD ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void SystemClock::SleepUnless(DWORD ms, const std::function<bool()>& done) {
    constexpr auto kStep = std::chrono::milliseconds(2);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!(done && done())) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= end) {
            return;
        }
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(kStep, end - now));
    }
}

DWORD SystemClock::WaitForEvent(ManualResetEvent* event, DWORD ms) {
    return event ? event->Wait(ms) : WAIT_FAILED;
}

Clock& RealClock() {
    static SystemClock clock;
    return clock;
}

}  // namespace qlb::platform
