#pragma once
// The embedded service manager: the Windows service control manager's behaviour on a machine that
// runs the product without systemd. The database is the registry (ServiceDatabase); the run-time state
// is runDir/services (ServiceStateStore); controls go over the service's control socket.

#include <memory>
#include <mutex>

#include "platform/processes/process_api.h"
#include "platform/services/service_control.h"
#include "platform/services/service_database.h"
#include "platform/services/service_state_store.h"
#include "platform/sessions/session_source.h"

namespace qlb::platform {

class EmbeddedServiceManager final : public ServiceControlManager {
  public:
    // Services are started through `processes`, detached. `sessions` may be null: session controls are
    // then delivered without being recorded.
    EmbeddedServiceManager(std::unique_ptr<ServiceDatabase> database, std::unique_ptr<ProcessApi> processes,
                           std::filesystem::path runDir, SessionSource* sessions,
                           int controlTimeoutMs = 30000);

    SysStatus Connect(DWORD access) override;
    SysStatus OpenService(const std::wstring& name, DWORD access) override;
    SysStatus CreateService(const ServiceConfig& config) override;
    SysStatus DeleteService(const std::wstring& name) override;
    SysStatus StartService(const std::wstring& name) override;
    SysResult<SERVICE_STATUS> ControlService(const std::wstring& name, DWORD control, DWORD eventType,
                                             DWORD sessionId) override;
    SysResult<SERVICE_STATUS> QueryServiceStatus(const std::wstring& name) override;
    SysResult<ServiceConfig> QueryServiceConfig(const std::wstring& name) override;
    SysStatus ChangeStartType(const std::wstring& name, DWORD startType) override;

  private:
    // The status the manager shows: what the service published while its process lives, stopped
    // (with 1067 if it never said so) once it is gone.
    SERVICE_STATUS EffectiveStatus(const std::wstring& name, const ServiceConfig& config);

    std::unique_ptr<ServiceDatabase> database_;
    std::unique_ptr<ProcessApi> processes_;
    ServiceStateStore store_;
    SessionSource* sessions_;
    int controlTimeoutMs_;
};

// The service process side of the embedded manager.
class EmbeddedServiceProcessHost final : public ServiceProcessHost {
  public:
    explicit EmbeddedServiceProcessHost(std::filesystem::path runDir);
    ~EmbeddedServiceProcessHost() override;

    SysStatus Attach(const std::wstring& name) override;
    SysStatus SetStatus(const SERVICE_STATUS& status) override;
    void ServeControls(const Deliver& deliver) override;
    void StopServing() override;

  private:
    ServiceStateStore store_;
    std::mutex mutex_;  // the handler and ServiceMain publish from two threads
    std::wstring name_;
    ServiceStateRecord record_;
    std::unique_ptr<class ControlListener> listener_;
};

bool IsValidServiceName(const std::wstring& name) noexcept;

}  // namespace qlb::platform
