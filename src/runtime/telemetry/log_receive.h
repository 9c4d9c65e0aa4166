#pragma once
// Records that user-mode modules send to the service over IPC end up here and go to the spool like the
// service's own.

#include "runtime/telemetry/event_data_report.h"

class LogReceive {
  public:
    static LogReceive& Instance();

    // Hands the record on to EventDataReport::SendMsg as it came; true once it is in the spool.
    bool PCMonitorRcvLog(LogInfo& info);

    LogReceive(const LogReceive&) = delete;
    LogReceive& operator=(const LogReceive&) = delete;

  private:
    LogReceive() = default;
};
