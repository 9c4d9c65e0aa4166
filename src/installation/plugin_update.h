#pragma once
// The bridge to the patch library "PluginUpdate.dll" beside the executable. The service installs the
// waiting patches before it connects to the service manager, and asks at logon whether any wait.
//
// The library binding lands with the patch stage; for now every call is a stand-in that does nothing,
// so that the process entry already runs its calls in their places.

#include <string>
#include <vector>

#include "runtime/telemetry/event_data_report.h"

class PluginUpdate {
  public:
    // The one component id every call uses.
    static constexpr const char* kComponentId = "99_";

    PluginUpdate();
    ~PluginUpdate();
    PluginUpdate(const PluginUpdate&) = delete;
    PluginUpdate& operator=(const PluginUpdate&) = delete;

    bool InstallPatch(int kind, const std::string& componentId);
    bool IsNeedInstall(const std::string& componentIdPrefix);
    std::vector<LogInfo> GetDelayReport();
    // Starts the delayed sending of the records the library holds back, and returns at once.
    void StartDelayReport();

  private:
    // The patch library, once the binding lands.
    [[maybe_unused]] void* module_ = nullptr;
};
