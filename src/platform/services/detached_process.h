#pragma once
// Starting a service binary as the Windows manager does: a process of its own, detached from the
// starter (own session, stdio on /dev/null, no inherited descriptors), with no arguments.

#include <cstdint>
#include <filesystem>
#include <functional>

#include "runtime/common/result.h"

namespace qlb::platform {

struct DetachedProcess {
    std::int64_t pid = 0;
    std::uint64_t startTime = 0;
};

// `beforeExec` runs in the starter once the pid is known and before the binary runs, so the starter can
// publish state that the new process reads first thing. Returns after the exec succeeded or failed
// (2 when the binary is missing, 5 when it may not be run).
SysResult<DetachedProcess> StartDetachedProcess(
    const std::filesystem::path& binary, const std::function<void(const DetachedProcess&)>& beforeExec);

}  // namespace qlb::platform
