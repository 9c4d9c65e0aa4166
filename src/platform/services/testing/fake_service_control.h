#pragma once
// Fakes of the service control layer for tests: a manager whose answers and failures are scripted,
// and a service process host that records every status and hands controls to the dispatcher on
// request. Header-only; tests include it directly.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/services/service_control.h"
#include "runtime/common/strings.h"

namespace qlb::platform::testing {

class FakeServiceControlManager final : public ServiceControlManager {
  public:
    struct Entry {
        ServiceConfig config;
        SERVICE_STATUS status;
    };

    // Scripts the next calls of `operation` ("Connect", "OpenService", "CreateService", "DeleteService",
    // "StartService", "ControlService", "QueryServiceStatus") to fail with `error`, once per entry.
    void FailNext(const std::string& operation, std::uint32_t error) {
        failures_[operation].push_back(error);
    }
    // States the next queries report, one per query, before the stored one.
    void QueueQueryStates(std::vector<DWORD> states) { queryStates_.assign(states.begin(), states.end()); }
    void AddService(const std::wstring& name, DWORD state, const std::wstring& binary = L"/bin/service") {
        Entry e;
        e.config.name = name;
        e.config.binaryPath = binary;
        e.status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        e.status.dwCurrentState = state;
        e.status.dwControlsAccepted = state == SERVICE_RUNNING ? 0xC5 : 0;
        services_[Key(name)] = e;
    }
    // The state a stop control leaves behind.
    DWORD stateAfterStop = SERVICE_STOP_PENDING;

    bool Has(const std::wstring& name) const { return services_.count(Key(name)) != 0; }
    const Entry& Get(const std::wstring& name) const { return services_.at(Key(name)); }
    const std::vector<std::string>& Calls() const { return calls_; }
    int CountCalls(const std::string& op) const {
        int n = 0;
        for (const auto& c : calls_) {
            n += c == op ? 1 : 0;
        }
        return n;
    }

    SysStatus Connect(DWORD) override { return SysStatus{Scripted("Connect")}; }
    SysStatus OpenService(const std::wstring& name, DWORD) override {
        if (auto e = Scripted("OpenService")) {
            return SysStatus::Fail(e);
        }
        return Has(name) ? SysStatus::Ok() : SysStatus::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
    }
    SysStatus CreateService(const ServiceConfig& config) override {
        if (auto e = Scripted("CreateService")) {
            return SysStatus::Fail(e);
        }
        if (Has(config.name)) {
            return SysStatus::Fail(win::ERROR_SERVICE_EXISTS);
        }
        Entry entry;
        entry.config = config;
        entry.status.dwServiceType = config.serviceType;
        entry.status.dwCurrentState = SERVICE_STOPPED;
        services_[Key(config.name)] = entry;
        return SysStatus::Ok();
    }
    SysStatus DeleteService(const std::wstring& name) override {
        if (auto e = Scripted("DeleteService")) {
            return SysStatus::Fail(e);
        }
        if (!Has(name)) {
            return SysStatus::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
        }
        services_.erase(Key(name));
        return SysStatus::Ok();
    }
    SysStatus StartService(const std::wstring& name) override {
        if (auto e = Scripted("StartService")) {
            return SysStatus::Fail(e);
        }
        if (!Has(name)) {
            return SysStatus::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
        }
        auto& s = services_[Key(name)].status;
        if (s.dwCurrentState != SERVICE_STOPPED) {
            return SysStatus::Fail(win::ERROR_SERVICE_ALREADY_RUNNING);
        }
        s.dwCurrentState = SERVICE_START_PENDING;
        return SysStatus::Ok();
    }
    SysResult<SERVICE_STATUS> ControlService(const std::wstring& name, DWORD control, DWORD eventType,
                                             DWORD sessionId) override {
        using R = SysResult<SERVICE_STATUS>;
        lastControl = {control, eventType, sessionId};
        if (auto e = Scripted("ControlService")) {
            return R::Fail(e);
        }
        if (!Has(name)) {
            return R::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
        }
        auto& s = services_[Key(name)].status;
        if (s.dwCurrentState == SERVICE_STOPPED) {
            return R::Fail(win::ERROR_SERVICE_NOT_ACTIVE);
        }
        if (control == SERVICE_CONTROL_STOP) {
            s.dwCurrentState = stateAfterStop;
        }
        return R::Ok(s);
    }
    SysResult<SERVICE_STATUS> QueryServiceStatus(const std::wstring& name) override {
        using R = SysResult<SERVICE_STATUS>;
        if (auto e = Scripted("QueryServiceStatus")) {
            return R::Fail(e);
        }
        if (!Has(name)) {
            return R::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
        }
        auto& s = services_[Key(name)].status;
        if (!queryStates_.empty()) {
            s.dwCurrentState = queryStates_.front();
            queryStates_.pop_front();
        }
        return R::Ok(s);
    }
    SysResult<ServiceConfig> QueryServiceConfig(const std::wstring& name) override {
        calls_.push_back("QueryServiceConfig");
        if (!Has(name)) {
            return SysResult<ServiceConfig>::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
        }
        return SysResult<ServiceConfig>::Ok(services_[Key(name)].config);
    }
    SysStatus ChangeStartType(const std::wstring& name, DWORD startType) override {
        calls_.push_back("ChangeStartType");
        if (!Has(name)) {
            return SysStatus::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
        }
        services_[Key(name)].config.startType = startType;
        return SysStatus::Ok();
    }

    ControlRequest lastControl;

  private:
    static std::wstring Key(const std::wstring& name) { return qlb::ToLowerAscii(name); }
    std::uint32_t Scripted(const std::string& op) {
        calls_.push_back(op);
        auto& queue = failures_[op];
        if (queue.empty()) {
            return 0;
        }
        const auto e = queue.front();
        queue.pop_front();
        return e;
    }

    std::map<std::wstring, Entry> services_;
    std::map<std::string, std::deque<std::uint32_t>> failures_;
    std::deque<DWORD> queryStates_;
    std::vector<std::string> calls_;
};

class FakeServiceProcessHost final : public ServiceProcessHost {
  public:
    std::atomic<std::uint32_t> attachError{0};
    std::atomic<std::uint32_t> setStatusError{0};

    SysStatus Attach(const std::wstring& name) override {
        std::lock_guard lock(mutex_);
        attachedName_ = name;
        return SysStatus{attachError.load()};
    }
    SysStatus SetStatus(const SERVICE_STATUS& status) override {
        {
            std::lock_guard lock(mutex_);
            statuses_.push_back(status);
        }
        cv_.notify_all();
        return SysStatus{setStatusError.load()};
    }
    void ServeControls(const Deliver& deliver) override {
        std::unique_lock lock(mutex_);
        for (;;) {
            cv_.wait(lock, [this] { return stop_ || !queue_.empty(); });
            if (queue_.empty()) {
                return;
            }
            auto item = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            item.second.set_value(deliver(item.first));
            lock.lock();
            if (stop_) {
                // Controls sent after the stop are answered as the manager would: not running.
                for (auto& rest : queue_) {
                    rest.second.set_value(SysResult<SERVICE_STATUS>::Fail(win::ERROR_SERVICE_NOT_ACTIVE));
                }
                queue_.clear();
                return;
            }
        }
    }
    void StopServing() override {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        cv_.notify_all();
    }

    // Hands a control to the dispatcher; the future is ready once the handler has run.
    std::future<SysResult<SERVICE_STATUS>> Send(ControlRequest request) {
        std::promise<SysResult<SERVICE_STATUS>> promise;
        auto future = promise.get_future();
        {
            std::lock_guard lock(mutex_);
            if (stop_) {
                promise.set_value(SysResult<SERVICE_STATUS>::Fail(win::ERROR_SERVICE_NOT_ACTIVE));
                return future;
            }
            queue_.emplace_back(request, std::move(promise));
        }
        cv_.notify_all();
        return future;
    }

    std::vector<SERVICE_STATUS> Statuses() const {
        std::lock_guard lock(mutex_);
        return statuses_;
    }
    std::wstring AttachedName() const {
        std::lock_guard lock(mutex_);
        return attachedName_;
    }
    // Waits (bounded) until some published status satisfies `pred`.
    bool WaitForStatus(const std::function<bool(const SERVICE_STATUS&)>& pred,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, limit, [&] {
            for (const auto& s : statuses_) {
                if (pred(s)) {
                    return true;
                }
            }
            return false;
        });
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::wstring attachedName_;
    std::vector<SERVICE_STATUS> statuses_;
    std::deque<std::pair<ControlRequest, std::promise<SysResult<SERVICE_STATUS>>>> queue_;
};

}  // namespace qlb::platform::testing
