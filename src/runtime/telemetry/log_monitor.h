#pragma once
// The telemetry upload of this process. UpLoadReefAndBI starts the background uploader when the
// profile's routing table names a telemetry endpoint; the stop flag ends it and tells the service's
// periodic workers (the dump sweep) that the service is going down.

#include <atomic>
#include <memory>
#include <mutex>

namespace qlb::telemetry {
class Uploader;
}

class LogMonitor {
  public:
    static LogMonitor& Instance();

    // Starts the uploader if an endpoint is configured and it is not running yet, and asks it for a round
    // now. Returns at once.
    void UpLoadReefAndBI();
    // true: the service is stopping; the uploader ends its round and its thread. false clears the flag.
    void SetStopFlag(bool stop);
    bool GetStopFlag() const noexcept { return stop_.load(); }
    // Ends the uploader, if any, and waits for its thread.
    void Stop();

    LogMonitor(const LogMonitor&) = delete;
    LogMonitor& operator=(const LogMonitor&) = delete;

  private:
    LogMonitor();
    ~LogMonitor();

    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::unique_ptr<qlb::telemetry::Uploader> uploader_;
};
