#include "platform/services/service_control.h"

#include <filesystem>

#include "platform/services/embedded_service_manager.h"
#include "platform/services/systemd_service_manager.h"
#include "runtime/common/machine_profile.h"

namespace qlb::platform {

std::string ResolveServiceManagerKind(const MachineProfile& profile) {
    if (profile.serviceManager == "embedded" || profile.serviceManager == "systemd") {
        return profile.serviceManager;
    }
    // "auto": systemd once its backend is filled in and the machine booted with it; until then the
    // embedded manager serves every machine.
    std::error_code ec;
    if (kSystemdBackendAvailable && std::filesystem::exists("/run/systemd/system", ec)) {
        return "systemd";
    }
    return "embedded";
}

std::unique_ptr<ServiceControlManager> MakeServiceControlManager(const MachineProfile& profile) {
    if (ResolveServiceManagerKind(profile) == "systemd") {
        return std::make_unique<SystemdServiceManager>();
    }
    return std::make_unique<EmbeddedServiceManager>(MakeRegistryServiceDatabase(), MakeLinuxProcessApi(),
                                                    profile.runDir, &CurrentSessionSource());
}

std::unique_ptr<ServiceProcessHost> MakeServiceProcessHost(const MachineProfile& profile) {
    if (ResolveServiceManagerKind(profile) == "systemd") {
        return std::make_unique<SystemdServiceProcessHost>();
    }
    return std::make_unique<EmbeddedServiceProcessHost>(profile.runDir);
}

}  // namespace qlb::platform
