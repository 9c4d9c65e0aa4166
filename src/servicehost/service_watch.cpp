// The small background duties of the service: the first-run report, the watch over the service's own
// registry key, the installation id, the PSI module, the signature check and the AppReadiness switch.
// They land with the service watch; until then each is a stand-in in its place.

#include <dlfcn.h>

#include "servicehost/service_stages.h"

void* LoadPSIModule() {
    return nullptr;
}

void FreePSIModule(void* module) {
    if (module) {
        dlclose(module);
    }
}

void StartMainServiceMonitor() {}

void OnlineVerifyMainService() {}

void WriteUuid() {}

void ReportInstallStatus() {}

int DisableAppReadiness() {
    return 1;
}
