#pragma once
// The embedded manager's run-time state of one service, in runDir/services/:
//   <name>.status  the last status the service published, with the pid and start time of its process
//   <name>.lock    held (flock) while a start is under way, so that two starts never race
//   <name>.sock    the control socket of the running service process
// Names are lower-cased for the files, since service names compare without regard to case.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/services/service_types.h"
#include "runtime/common/result.h"

namespace qlb::platform {

struct ServiceStateRecord {
    std::int64_t pid = 0;
    std::uint64_t processStartTime = 0;  // /proc/<pid>/stat field 22: tells a reused pid apart
    SERVICE_STATUS status;
};

class ServiceStateStore {
  public:
    explicit ServiceStateStore(std::filesystem::path runDir);

    std::filesystem::path Directory() const { return dir_; }
    std::filesystem::path StatusFile(const std::wstring& name) const;
    std::filesystem::path LockFile(const std::wstring& name) const;
    std::filesystem::path SocketFile(const std::wstring& name) const;

    SysStatus EnsureDirectory() const;
    std::optional<ServiceStateRecord> Read(const std::wstring& name) const;
    // Replaces the record in one step (rename), so a reader never sees half of it.
    SysStatus Write(const std::wstring& name, const ServiceStateRecord& record) const;
    void Remove(const std::wstring& name) const;

  private:
    std::filesystem::path dir_;
};

// The start time of a live process, nothing when there is no such process (or only its zombie).
std::optional<std::uint64_t> ProcessStartTime(std::int64_t pid);
// Whether the record's process is still the one that wrote it.
bool IsRecordProcessAlive(const ServiceStateRecord& record);

// Serialised form of a record (a JSON object); a malformed text gives nothing.
std::string FormatStateRecord(const ServiceStateRecord& record);
std::optional<ServiceStateRecord> ParseStateRecord(const std::string& text);

// An exclusive flock on a file, released by the destructor.
class FileLock {
  public:
    static SysResult<FileLock> Acquire(const std::filesystem::path& file);
    FileLock() = default;
    FileLock(FileLock&& other) noexcept;
    FileLock& operator=(FileLock&& other) noexcept;
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

  private:
    int fd_ = -1;
};

}  // namespace qlb::platform
