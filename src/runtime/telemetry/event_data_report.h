#pragma once
// Telemetry: records are stamped by GetMsg, appended to the spool appData/telemetry/events.jsonl by
// SendMsg before it returns true, and uploaded in the background to the endpoint the profile's routing
// table names. The upload never removes or rewrites lines of the spool.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct LogInfo {
    std::uint32_t eventType = 0;
    std::string eventId;  // nine decimal digits
    std::vector<std::string> extraList;
    std::vector<std::string> attachedFiles;  // full paths that go with the record
    std::string occurTime;                   // "%Y%m%d%H%M%S"
    std::string infoText;
    std::map<std::int32_t, std::string> fields;  // numbered from 0
    std::string extraText;
};

class EventDataReport {
  public:
    static EventDataReport& Instance();

    // A record stamped for `code` (eventId, occurTime) with `content` as its text.
    LogInfo GetMsg(const std::string& code, const std::string& content);
    // Appends the record to the spool; true once it is there. Never blocks on the network.
    bool SendMsg(LogInfo& info);
    // Whether records of this code carry their log files.
    bool IsCaptureLog(const std::string& code);
    // Syncs what was appended to the disk (LogPerform::QueueToDisk).
    void SyncSpool();

    EventDataReport(const EventDataReport&) = delete;
    EventDataReport& operator=(const EventDataReport&) = delete;

  private:
    EventDataReport();
    ~EventDataReport();
    struct Impl;
    Impl* impl_;
};

// GetMsg, then SendMsg, with the result ignored.
void ReportPlainEvent(const std::string& code, const std::string& content);
