#include "runtime/ipc/callback_pool.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>

#include "runtime/common/logging.h"

namespace qlb::ipc {

namespace {

constexpr std::size_t kWarmWorkers = 2;
constexpr std::chrono::seconds kDrainTimeout{2};

struct Task {
    std::function<void()> run;
    int label = 0;
};

}  // namespace

struct CallbackPool::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable finished;
    std::deque<Task> tasks;
    std::size_t workers = 0;
    std::size_t idle = 0;
    std::size_t maxWorkers = 1;
    std::chrono::milliseconds idleTimeout{30000};
    bool stopping = false;
};

namespace {

thread_local const CallbackPool::State* t_currentPool = nullptr;

void RunTask(Task& task) {
    try {
        task.run();
    } catch (const std::exception& e) {
        QLOG_ERROR("IPC callback of message 0x" << std::hex << task.label << std::dec
                                                << " threw: " << e.what());
    } catch (...) {
        QLOG_ERROR("IPC callback of message 0x" << std::hex << task.label << std::dec << " threw");
    }
}

void WorkerLoop(std::shared_ptr<CallbackPool::State> state) {
    t_currentPool = state.get();
    std::unique_lock<std::mutex> lock(state->mutex);
    for (;;) {
        if (state->stopping) {
            break;
        }
        if (state->tasks.empty()) {
            ++state->idle;
            const bool woken = state->wake.wait_for(lock, state->idleTimeout,
                                                    [&] { return state->stopping || !state->tasks.empty(); });
            --state->idle;
            if (!woken && state->workers > kWarmWorkers) {
                break;
            }
            continue;
        }
        Task task = std::move(state->tasks.front());
        state->tasks.pop_front();
        lock.unlock();
        RunTask(task);
        task = Task{};  // the callable's captures go before the lock is taken again
        lock.lock();
    }
    --state->workers;
    state->finished.notify_all();
}

}  // namespace

CallbackPool::CallbackPool(std::size_t maxWorkers, std::chrono::milliseconds idleTimeout)
    : state_(std::make_shared<State>()) {
    state_->maxWorkers = maxWorkers == 0 ? 1 : maxWorkers;
    state_->idleTimeout = idleTimeout;
}

CallbackPool::~CallbackPool() {
    Shutdown();
}

void CallbackPool::Shutdown() {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (state_->stopping) {
        return;
    }
    state_->stopping = true;
    state_->tasks.clear();
    state_->wake.notify_all();
    // A callback may itself be the one tearing the client down.
    const std::size_t self = t_currentPool == state_.get() ? 1 : 0;
    if (!state_->finished.wait_for(lock, kDrainTimeout, [&] { return state_->workers <= self; })) {
        QLOG_ERROR("IPC callbacks still running at shutdown: " << state_->workers - self);
    }
}

void CallbackPool::Submit(std::function<void()> task, int label) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->stopping) {
        return;
    }
    state_->tasks.push_back(Task{std::move(task), label});
    if (state_->idle >= state_->tasks.size()) {
        state_->wake.notify_one();
        return;
    }
    if (state_->workers < state_->maxWorkers) {
        try {
            std::thread(WorkerLoop, state_).detach();
            ++state_->workers;
        } catch (const std::system_error& e) {
            QLOG_ERROR("IPC callback worker not started: " << e.what());
        }
    }
    state_->wake.notify_one();
}

std::size_t CallbackPool::Workers() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->workers;
}

}  // namespace qlb::ipc
