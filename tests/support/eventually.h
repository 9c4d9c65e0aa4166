#pragma once
// A bounded wait for something another thread or process does: the condition is polled until it holds
// or the limit passes. The limit is generous; a passing test never waits for it.

#include <chrono>
#include <thread>

namespace qlb::testing {

template <typename Pred>
bool Eventually(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pred();
}

}  // namespace qlb::testing
