#include "runtime/telemetry/event_data_report.h"

#include <ctime>

#include "runtime/telemetry/log_perform.h"
#include "runtime/telemetry/log_receive.h"
#include "runtime/telemetry/spool.h"

namespace {

// Records of these codes carry their log files: the dump report attaches the dump and its text.
constexpr const char* kCaptureLogCodes[] = {"903999999"};

std::string LocalTimeNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32] = {};
    const size_t n = std::strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
    return std::string(text, n);
}

}  // namespace

struct EventDataReport::Impl {
    qlb::telemetry::Spool spool;
};

EventDataReport& EventDataReport::Instance() {
    static EventDataReport report;
    return report;
}

EventDataReport::EventDataReport() : impl_(new Impl) {}

EventDataReport::~EventDataReport() {
    delete impl_;
}

LogInfo EventDataReport::GetMsg(const std::string& code, const std::string& content) {
    LogInfo info;
    info.eventId = code;
    info.infoText = content;
    info.occurTime = LocalTimeNow();
    return info;
}

bool EventDataReport::SendMsg(LogInfo& info) {
    return impl_->spool.Append(qlb::telemetry::SpoolPath(), info);
}

bool EventDataReport::IsCaptureLog(const std::string& code) {
    for (const char* capture : kCaptureLogCodes) {
        if (code == capture) {
            return true;
        }
    }
    return false;
}

void ReportPlainEvent(const std::string& code, const std::string& content) {
    auto& report = EventDataReport::Instance();
    LogInfo info = report.GetMsg(code, content);
    [[maybe_unused]] const bool sent = report.SendMsg(info);
}

void EventDataReport::SyncSpool() {
    impl_->spool.Sync();
}

LogPerform& LogPerform::Instance() {
    static LogPerform perform;
    return perform;
}

void LogPerform::QueueToDisk() {
    EventDataReport::Instance().SyncSpool();
}

LogReceive& LogReceive::Instance() {
    static LogReceive receive;
    return receive;
}

bool LogReceive::PCMonitorRcvLog(LogInfo& info) {
    return EventDataReport::Instance().SendMsg(info);
}
