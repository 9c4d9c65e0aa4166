#include "platform/services/embedded_service_manager.h"

#include <unistd.h>

#include "platform/services/control_channel.h"

namespace qlb::platform {

bool IsValidServiceName(const std::wstring& name) noexcept {
    if (name.empty() || name.size() > 256) {
        return false;
    }
    for (const wchar_t c : name) {
        if (c == L'/' || c == L'\\' || c < 0x20) {
            return false;
        }
    }
    return name != L"." && name != L"..";
}

EmbeddedServiceManager::EmbeddedServiceManager(std::unique_ptr<ServiceDatabase> database,
                                               std::unique_ptr<ProcessApi> processes,
                                               std::filesystem::path runDir, SessionSource* sessions,
                                               int controlTimeoutMs)
    : database_(std::move(database)),
      processes_(std::move(processes)),
      store_(std::move(runDir)),
      sessions_(sessions),
      controlTimeoutMs_(controlTimeoutMs) {}

SysStatus EmbeddedServiceManager::Connect(DWORD /*access*/) {
    return store_.EnsureDirectory();
}

SysStatus EmbeddedServiceManager::OpenService(const std::wstring& name, DWORD /*access*/) {
    if (!IsValidServiceName(name)) {
        return SysStatus::Fail(win::ERROR_INVALID_NAME);
    }
    return SysStatus{database_->Read(name).error};
}

SysStatus EmbeddedServiceManager::CreateService(const ServiceConfig& config) {
    if (!IsValidServiceName(config.name) || config.binaryPath.empty()) {
        return SysStatus::Fail(config.binaryPath.empty() ? win::ERROR_INVALID_PARAMETER
                                                         : win::ERROR_INVALID_NAME);
    }
    if (database_->Read(config.name).ok()) {
        return SysStatus::Fail(win::ERROR_SERVICE_EXISTS);
    }
    return database_->Write(config);
}

SysStatus EmbeddedServiceManager::DeleteService(const std::wstring& name) {
    if (!IsValidServiceName(name)) {
        return SysStatus::Fail(win::ERROR_INVALID_NAME);
    }
    if (auto config = database_->Read(name); !config) {
        return SysStatus{config.error};
    }
    if (auto st = database_->Remove(name); !st) {
        return st;
    }
    // A running service keeps its state file until it stops; a stopped one leaves nothing behind.
    const auto record = store_.Read(name);
    if (!record || !IsRecordProcessAlive(*record)) {
        store_.Remove(name);
    }
    return SysStatus::Ok();
}

SysStatus EmbeddedServiceManager::StartService(const std::wstring& name) {
    if (!IsValidServiceName(name)) {
        return SysStatus::Fail(win::ERROR_INVALID_NAME);
    }
    auto config = database_->Read(name);
    if (!config) {
        return SysStatus{config.error};
    }
    if (config.value.startType == SERVICE_DISABLED) {
        return SysStatus::Fail(win::ERROR_SERVICE_DISABLED);
    }
    if (auto st = store_.EnsureDirectory(); !st) {
        return st;
    }
    // One start at a time per service: a second start waits here and then finds the first one alive.
    auto lock = FileLock::Acquire(store_.LockFile(name));
    if (!lock) {
        return SysStatus{lock.error};
    }
    if (const auto record = store_.Read(name);
        record && record->status.dwCurrentState != SERVICE_STOPPED && IsRecordProcessAlive(*record)) {
        return SysStatus::Fail(win::ERROR_SERVICE_ALREADY_RUNNING);
    }
    // The service runs as the Windows manager runs it: a process of its own, no arguments, in "/". Its
    // record is published before it runs, since the first thing it does is find itself there.
    StartOptions options;
    options.image = config.value.binaryPath;
    options.workingDir = "/";
    SysStatus published;
    options.beforeExec = [&](std::uint32_t pid) {
        ServiceStateRecord record;
        record.pid = pid;
        record.processStartTime = ProcessStartTime(pid).value_or(0);
        record.status.dwServiceType = config.value.serviceType;
        record.status.dwCurrentState = SERVICE_START_PENDING;
        record.status.dwWaitHint = 2000;
        published = store_.Write(name, record);
    };
    auto started = processes_->Start(options);
    if (!started) {
        ServiceStateRecord failed;
        failed.status.dwServiceType = config.value.serviceType;
        failed.status.dwCurrentState = SERVICE_STOPPED;
        failed.status.dwWin32ExitCode = started.error;
        (void)store_.Write(name, failed);
        return SysStatus{started.error};
    }
    return published;
}

SERVICE_STATUS EmbeddedServiceManager::EffectiveStatus(const std::wstring& name,
                                                       const ServiceConfig& config) {
    SERVICE_STATUS stopped;
    stopped.dwServiceType = config.serviceType;
    stopped.dwCurrentState = SERVICE_STOPPED;
    const auto record = store_.Read(name);
    if (!record) {
        return stopped;
    }
    if (record->status.dwCurrentState == SERVICE_STOPPED) {
        SERVICE_STATUS reported = record->status;
        reported.dwControlsAccepted = 0;
        return reported;
    }
    if (!IsRecordProcessAlive(*record)) {
        // The process ended without reporting stopped.
        stopped.dwServiceType = record->status.dwServiceType;
        stopped.dwWin32ExitCode = win::ERROR_PROCESS_ABORTED;
        return stopped;
    }
    return record->status;
}

SysResult<SERVICE_STATUS> EmbeddedServiceManager::ControlService(const std::wstring& name, DWORD control,
                                                                 DWORD eventType, DWORD sessionId) {
    using R = SysResult<SERVICE_STATUS>;
    if (!IsValidServiceName(name)) {
        return R::Fail(win::ERROR_INVALID_NAME);
    }
    auto config = database_->Read(name);
    if (!config) {
        return R::Fail(config.error);
    }
    // The machine's session changes whether or not a service hears of it.
    if (control == SERVICE_CONTROL_SESSIONCHANGE && sessions_ &&
        (eventType == WTS_SESSION_LOGON || eventType == WTS_SESSION_UNLOCK)) {
        (void)sessions_->SetActiveSession(sessionId);
    }
    const SERVICE_STATUS status = EffectiveStatus(name, config.value);
    if (status.dwCurrentState == SERVICE_STOPPED) {
        return R::Fail(win::ERROR_SERVICE_NOT_ACTIVE);
    }
    const DWORD bit = AcceptBitOfControl(control);
    if (bit != 0 && (status.dwControlsAccepted & bit) == 0) {
        return R::Fail(win::ERROR_INVALID_SERVICE_CONTROL);
    }
    auto reply = SendControl(store_.SocketFile(name), ControlRequest{control, eventType, sessionId},
                             controlTimeoutMs_);
    if (reply.error == win::ERROR_SERVICE_NOT_ACTIVE && status.dwCurrentState == SERVICE_START_PENDING) {
        // Started, but its dispatcher is not listening yet.
        return R::Fail(win::ERROR_SERVICE_CANNOT_ACCEPT_CTRL);
    }
    return reply;
}

SysResult<SERVICE_STATUS> EmbeddedServiceManager::QueryServiceStatus(const std::wstring& name) {
    using R = SysResult<SERVICE_STATUS>;
    if (!IsValidServiceName(name)) {
        return R::Fail(win::ERROR_INVALID_NAME);
    }
    auto config = database_->Read(name);
    if (!config) {
        return R::Fail(config.error);
    }
    return R::Ok(EffectiveStatus(name, config.value));
}

SysResult<ServiceConfig> EmbeddedServiceManager::QueryServiceConfig(const std::wstring& name) {
    if (!IsValidServiceName(name)) {
        return SysResult<ServiceConfig>::Fail(win::ERROR_INVALID_NAME);
    }
    return database_->Read(name);
}

SysStatus EmbeddedServiceManager::ChangeStartType(const std::wstring& name, DWORD startType) {
    if (!IsValidServiceName(name)) {
        return SysStatus::Fail(win::ERROR_INVALID_NAME);
    }
    if (startType > SERVICE_DISABLED) {
        return SysStatus::Fail(win::ERROR_INVALID_PARAMETER);
    }
    auto config = database_->Read(name);
    if (!config) {
        return SysStatus{config.error};
    }
    config.value.startType = startType;
    return database_->Write(config.value);
}

// --- the service process side ---

EmbeddedServiceProcessHost::EmbeddedServiceProcessHost(std::filesystem::path runDir)
    : store_(std::move(runDir)), listener_(std::make_unique<ControlListener>()) {}

EmbeddedServiceProcessHost::~EmbeddedServiceProcessHost() = default;

SysStatus EmbeddedServiceProcessHost::Attach(const std::wstring& name) {
    const auto record = store_.Read(name);
    const auto ownStart = ProcessStartTime(::getpid());
    // Only the process the manager just started finds itself in the record.
    if (!record || record->pid != ::getpid() || !ownStart || *ownStart != record->processStartTime ||
        record->status.dwCurrentState != SERVICE_START_PENDING) {
        return SysStatus::Fail(win::ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    }
    name_ = name;
    record_ = *record;
    return listener_->Listen(store_.SocketFile(name));
}

SysStatus EmbeddedServiceProcessHost::SetStatus(const SERVICE_STATUS& status) {
    std::lock_guard lock(mutex_);
    if (name_.empty()) {
        return SysStatus::Fail(win::ERROR_INVALID_HANDLE);
    }
    record_.status = status;
    return store_.Write(name_, record_);
}

void EmbeddedServiceProcessHost::ServeControls(const Deliver& deliver) {
    listener_->Serve(deliver);
    listener_->CloseListening();
}

void EmbeddedServiceProcessHost::StopServing() {
    listener_->Stop();
}

}  // namespace qlb::platform
