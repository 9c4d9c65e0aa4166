#pragma once
// The service control layer: what a control tool or CServiceManager asks of the machine's service
// manager (ServiceControlManager), and what a service process needs from it (ServiceProcessHost).
// Two backends sit behind it: the embedded manager (service database in the registry, state in
// runDir) and systemd.

#include <functional>
#include <memory>
#include <string>

#include "platform/services/service_types.h"
#include "runtime/common/result.h"

namespace qlb {
struct MachineProfile;
}

namespace qlb::platform {

// The manager side. Every call stands on its own; there are no handles to leak.
class ServiceControlManager {
  public:
    virtual ~ServiceControlManager() = default;

    // OpenSCManagerW: whether the manager can be reached with the access asked for.
    virtual SysStatus Connect(DWORD access) = 0;
    // OpenServiceW: whether the service is registered (1060 if not).
    virtual SysStatus OpenService(const std::wstring& name, DWORD access) = 0;
    // CreateServiceW: 1073 if the name is taken.
    virtual SysStatus CreateService(const ServiceConfig& config) = 0;
    // DeleteService: removes the registration; a running service keeps running.
    virtual SysStatus DeleteService(const std::wstring& name) = 0;
    // StartServiceW: starts the registered binary detached; returns once the process exists.
    // 1056 if it runs already, 1058 if disabled.
    virtual SysStatus StartService(const std::wstring& name) = 0;
    // ControlService: delivers the control and returns once the handler has run, with the status
    // that followed. 1052 when the accepted mask refuses it, 1062 when the service is not running.
    virtual SysResult<SERVICE_STATUS> ControlService(const std::wstring& name, DWORD control,
                                                     DWORD eventType = 0, DWORD sessionId = 0) = 0;
    virtual SysResult<SERVICE_STATUS> QueryServiceStatus(const std::wstring& name) = 0;
    virtual SysResult<ServiceConfig> QueryServiceConfig(const std::wstring& name) = 0;
    // ChangeServiceConfigW for the start type only.
    virtual SysStatus ChangeStartType(const std::wstring& name, DWORD startType) = 0;
};

// One control as the manager hands it to a service process.
struct ControlRequest {
    DWORD control = 0;
    DWORD eventType = 0;
    DWORD sessionId = 0;  // session change controls only
};

// The service process side.
class ServiceProcessHost {
  public:
    virtual ~ServiceProcessHost() = default;

    // Confirms that the manager started this process as `name`; 1063 for a process started by hand.
    virtual SysStatus Attach(const std::wstring& name) = 0;
    // Publishes the status for the manager.
    virtual SysStatus SetStatus(const SERVICE_STATUS& status) = 0;
    // Takes controls one at a time and hands each to `deliver`, whose result goes back to the sender,
    // until StopServing. Runs on the dispatcher's thread.
    using Deliver = std::function<SysResult<SERVICE_STATUS>(const ControlRequest&)>;
    virtual void ServeControls(const Deliver& deliver) = 0;
    // Ends ServeControls after the control in hand; callable from any thread.
    virtual void StopServing() = 0;
};

// Backends for the profile's serviceManager: "embedded", "systemd", or "auto".
std::unique_ptr<ServiceControlManager> MakeServiceControlManager(const MachineProfile& profile);
std::unique_ptr<ServiceProcessHost> MakeServiceProcessHost(const MachineProfile& profile);

// The backend "auto" resolves to on this machine.
std::string ResolveServiceManagerKind(const MachineProfile& profile);

}  // namespace qlb::platform
