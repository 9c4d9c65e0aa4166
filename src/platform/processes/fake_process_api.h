#pragma once
// A scripted process table for tests: processes that end by themselves on the first wait or never,
// opens that are refused, terminations that fail, snapshots that fail, and a record of what was done.

#include <map>
#include <mutex>
#include <vector>

#include "platform/processes/process_api.h"

namespace qlb::platform {

class FakeProcessApi final : public ProcessApi {
  public:
    struct FakeProcess {
        std::wstring imageName;
        bool endsWithinWait = false;  // a wait with any limit sees it end
        bool ended = false;
        std::uint32_t openError = 0;       // Open fails with this number when not 0
        std::uint32_t terminateError = 0;  // Terminate fails with this number when not 0
    };

    void Add(std::uint32_t pid, FakeProcess process);
    void FailSnapshot(std::uint32_t error) { snapshotError_ = error; }
    void FailStart(std::uint32_t error) { startError_ = error; }

    // What happened, in order: "open 12", "wait 12 1000", "terminate 12", "start /p/x user".
    std::vector<std::string> Calls() const;
    std::vector<StartOptions> Started() const;
    bool Ended(std::uint32_t pid) const;

    SysResult<std::vector<ProcessEntry>> Snapshot() override;
    SysResult<std::unique_ptr<Process>> Open(std::uint32_t pid) override;
    SysResult<std::uint32_t> Start(const StartOptions& options) override;

  private:
    friend class FakeHandle;
    void Record(std::string call);

    mutable std::mutex mutex_;
    std::map<std::uint32_t, FakeProcess> processes_;
    std::vector<std::string> calls_;
    std::vector<StartOptions> started_;
    std::uint32_t snapshotError_ = 0;
    std::uint32_t startError_ = 0;
    std::uint32_t nextPid_ = 5000;
};

}  // namespace qlb::platform
