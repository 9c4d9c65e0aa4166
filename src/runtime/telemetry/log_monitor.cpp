#include "runtime/telemetry/log_monitor.h"

#include "runtime/common/logging.h"
#include "runtime/telemetry/uploader.h"

LogMonitor& LogMonitor::Instance() {
    static LogMonitor monitor;
    return monitor;
}

LogMonitor::LogMonitor() = default;

LogMonitor::~LogMonitor() {
    Stop();
}

void LogMonitor::UpLoadReefAndBI() {
    std::lock_guard lock(mutex_);
    if (stop_.load()) {
        return;
    }
    if (!uploader_) {
        auto options = qlb::telemetry::UploaderOptionsFromProfile();
        if (!options) {
            return;  // no endpoint: the records stay in the spool
        }
        uploader_ = std::make_unique<qlb::telemetry::Uploader>(std::move(*options));
        uploader_->Start();
    }
    uploader_->Wake();
}

void LogMonitor::SetStopFlag(bool stop) {
    stop_.store(stop);
    if (stop) {
        Stop();
    }
}

void LogMonitor::Stop() {
    std::unique_ptr<qlb::telemetry::Uploader> uploader;
    {
        std::lock_guard lock(mutex_);
        uploader = std::move(uploader_);
    }
    if (uploader) {
        uploader->Stop();
    }
}
