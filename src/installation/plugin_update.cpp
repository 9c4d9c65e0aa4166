#include "installation/plugin_update.h"

// Stand-ins until the patch library binding lands: no library is loaded, nothing is installed and
// nothing waits.
PluginUpdate::PluginUpdate() = default;

PluginUpdate::~PluginUpdate() = default;

bool PluginUpdate::InstallPatch(int /*kind*/, const std::string& /*componentId*/) {
    return false;
}

bool PluginUpdate::IsNeedInstall(const std::string& /*componentIdPrefix*/) {
    return false;
}

std::vector<LogInfo> PluginUpdate::GetDelayReport() {
    return {};
}

void PluginUpdate::StartDelayReport() {}
