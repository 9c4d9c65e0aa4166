#pragma once
// The processes of the machine, as the service sees them: a snapshot of running images, handles that
// stay bound to one process (so a reused id never reaches another program), waits with a limit,
// forced ends, and starting a detached program, optionally as another user.
//
// The image name of a process is the file name of its resolved executable (/proc/<pid>/exe), not the
// kernel's 15-character command name.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "runtime/common/result.h"
#include "runtime/common/win_types.h"

namespace qlb::platform {

struct ProcessEntry {
    std::uint32_t pid = 0;
    std::wstring imageName;           // "QLBMessageCenter.exe"
    std::filesystem::path imagePath;  // the resolved executable
};

// An opened process. It refers to the process it was opened for even after that process ended.
class Process {
  public:
    virtual ~Process() = default;
    virtual std::uint32_t Pid() const = 0;
    // WAIT_OBJECT_0 when the process has ended, WAIT_TIMEOUT when it still runs after `timeoutMs`
    // (INFINITE: no limit), WAIT_FAILED on an error.
    virtual DWORD Wait(DWORD timeoutMs) = 0;
    // Ends the process at once. Linux has no way to hand it an exit code; the code is ignored.
    virtual SysStatus Terminate(DWORD exitCode) = 0;
};

struct StartOptions {
    std::filesystem::path image;         // absolute path of the executable
    std::vector<std::string> arguments;  // argv[1..]
    std::filesystem::path workingDir;    // empty: the image's directory
    // Runs the program as this user (its uid, primary group and supplementary groups). Empty: with
    // the caller's own credentials.
    std::string user;
    // Runs in the caller once the program's process exists and before its executable runs, with that
    // process's id: the caller may publish state the program reads first thing.
    std::function<void(std::uint32_t pid)> beforeExec;
};

class ProcessApi {
  public:
    virtual ~ProcessApi() = default;

    // Every process whose executable can be resolved; kernel threads and zombies have none.
    virtual SysResult<std::vector<ProcessEntry>> Snapshot() = 0;
    // ERROR_INVALID_PARAMETER when there is no such process, ERROR_ACCESS_DENIED when it may not be
    // touched.
    virtual SysResult<std::unique_ptr<Process>> Open(std::uint32_t pid) = 0;
    // Starts the program detached from the caller (a new session, not a child of the caller, standard
    // streams on /dev/null) and gives its id once the executable has been loaded.
    virtual SysResult<std::uint32_t> Start(const StartOptions& options) = 0;
};

// The process-wide instance: the Linux implementation unless a test put another in place.
ProcessApi& Processes();
// Puts `api` in place of the process-wide instance; null restores the Linux one. The caller keeps
// ownership and keeps `api` alive while it is in place.
void SetProcessesForTesting(ProcessApi* api);

std::unique_ptr<ProcessApi> MakeLinuxProcessApi();

// "/usr/bin/foo (deleted)" -> "foo": the image name of a resolved executable path.
std::wstring ImageNameOf(const std::filesystem::path& resolvedExe);

}  // namespace qlb::platform
