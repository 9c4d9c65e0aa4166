#pragma once
// The workers that run a client's callbacks. A message is handed to an idle worker, and a new worker is
// started whenever none is idle, so a callback that blocks for a long time holds up only itself. Idle
// workers beyond the first two leave after half a minute. Above `maxWorkers`, messages wait in order.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace qlb::ipc {

class CallbackPool {
  public:
    explicit CallbackPool(std::size_t maxWorkers,
                          std::chrono::milliseconds idleTimeout = std::chrono::seconds(30));
    // Lets running callbacks finish for up to `drainTimeout`; a worker still busy after that (a handler
    // blocked for minutes) is left to end on its own and touches nothing of the pool's owner again.
    ~CallbackPool();
    CallbackPool(const CallbackPool&) = delete;
    CallbackPool& operator=(const CallbackPool&) = delete;

    // Drops the messages still waiting and lets running callbacks finish, as the destructor does; later
    // submissions are dropped. Safe to call more than once.
    void Shutdown();

    // `task` runs on a worker; an exception it lets out is logged with `label` and swallowed.
    void Submit(std::function<void()> task, int label);

    std::size_t Workers() const;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

}  // namespace qlb::ipc
