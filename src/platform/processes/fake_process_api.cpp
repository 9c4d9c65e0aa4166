#include "platform/processes/fake_process_api.h"

#include "runtime/common/strings.h"

namespace qlb::platform {

class FakeHandle final : public Process {
  public:
    FakeHandle(FakeProcessApi& api, std::uint32_t pid) : api_(api), pid_(pid) {}
    std::uint32_t Pid() const override { return pid_; }

    DWORD Wait(DWORD timeoutMs) override {
        api_.Record("wait " + std::to_string(pid_) + " " + std::to_string(timeoutMs));
        std::lock_guard lock(api_.mutex_);
        auto& p = api_.processes_[pid_];
        if (p.endsWithinWait) {
            p.ended = true;
        }
        return p.ended ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    }

    SysStatus Terminate(DWORD /*exitCode*/) override {
        api_.Record("terminate " + std::to_string(pid_));
        std::lock_guard lock(api_.mutex_);
        auto& p = api_.processes_[pid_];
        if (p.terminateError != 0) {
            return SysStatus::Fail(p.terminateError);
        }
        p.ended = true;
        return SysStatus::Ok();
    }

  private:
    FakeProcessApi& api_;
    std::uint32_t pid_;
};

void FakeProcessApi::Add(std::uint32_t pid, FakeProcess process) {
    std::lock_guard lock(mutex_);
    processes_[pid] = std::move(process);
}

void FakeProcessApi::Record(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

std::vector<std::string> FakeProcessApi::Calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<StartOptions> FakeProcessApi::Started() const {
    std::lock_guard lock(mutex_);
    return started_;
}

bool FakeProcessApi::Ended(std::uint32_t pid) const {
    std::lock_guard lock(mutex_);
    auto it = processes_.find(pid);
    return it == processes_.end() || it->second.ended;
}

SysResult<std::vector<ProcessEntry>> FakeProcessApi::Snapshot() {
    Record("snapshot");
    std::lock_guard lock(mutex_);
    if (snapshotError_ != 0) {
        return SysResult<std::vector<ProcessEntry>>::Fail(snapshotError_);
    }
    std::vector<ProcessEntry> entries;
    for (const auto& [pid, p] : processes_) {
        if (!p.ended) {
            entries.push_back(ProcessEntry{pid, p.imageName, "/fake/" + qlb::W2U(p.imageName)});
        }
    }
    return SysResult<std::vector<ProcessEntry>>::Ok(std::move(entries));
}

SysResult<std::unique_ptr<Process>> FakeProcessApi::Open(std::uint32_t pid) {
    Record("open " + std::to_string(pid));
    std::lock_guard lock(mutex_);
    auto it = processes_.find(pid);
    if (it == processes_.end()) {
        return SysResult<std::unique_ptr<Process>>::Fail(win::ERROR_INVALID_PARAMETER);
    }
    if (it->second.openError != 0) {
        return SysResult<std::unique_ptr<Process>>::Fail(it->second.openError);
    }
    return SysResult<std::unique_ptr<Process>>::Ok(std::make_unique<FakeHandle>(*this, pid));
}

SysResult<std::uint32_t> FakeProcessApi::Start(const StartOptions& options) {
    Record("start " + options.image.string() + (options.user.empty() ? "" : " " + options.user));
    std::uint32_t pid = 0;
    {
        std::lock_guard lock(mutex_);
        if (startError_ != 0) {
            return SysResult<std::uint32_t>::Fail(startError_);
        }
        started_.push_back(options);
        pid = nextPid_++;
        processes_[pid] = FakeProcess{DE::ANSIToUnicode(options.image.filename().string())};
    }
    // Outside the lock: the caller's hook may look at this fake.
    if (options.beforeExec) {
        options.beforeExec(pid);
    }
    return SysResult<std::uint32_t>::Ok(pid);
}

}  // namespace qlb::platform
