#pragma once
// The telemetry spool: one JSON object per line, appended with a single write(2) on a descriptor opened
// with O_APPEND, so that lines from many threads and processes never interleave. A record is "sent"
// once the kernel has it in the file; nothing is synced per record.

#include <sys/types.h>

#include <filesystem>
#include <mutex>
#include <string>

#include "runtime/telemetry/event_data_report.h"

namespace qlb::telemetry {

// The line of a record, without its newline: keys eventType, eventId, extraList, attachedFiles,
// occurTime, infoText, fields (keys are the decimal field numbers), extraText. Invalid UTF-8 in the
// text becomes U+FFFD.
void SerializeRecord(const LogInfo& info, std::string& out);
// The other way, for the uploader and tests; false when the line is not a record.
bool ParseRecord(const std::string& line, LogInfo& info);

// appData/telemetry/ of the current machine profile.
std::filesystem::path TelemetryDir();
std::filesystem::path SpoolPath();

class Spool {
  public:
    Spool() = default;
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    // Appends the record to the file at `path`, creating the directories and the file as needed. False
    // (with an ERROR line in the log) when the record could not be written whole.
    bool Append(const std::filesystem::path& path, const LogInfo& info);
    // Syncs what was appended to the disk.
    void Sync();

  private:
    bool OpenLocked(const std::filesystem::path& path);
    void CloseLocked();

    std::mutex mutex_;
    std::filesystem::path path_;
    int fd_ = -1;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    std::string buffer_;
};

}  // namespace qlb::telemetry
