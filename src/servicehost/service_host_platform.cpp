#include "servicehost/service_host_platform.h"

#include <mutex>

#include "runtime/common/machine_profile.h"

namespace qlb::servicehost {
namespace {

std::mutex g_platformMutex;
std::unique_ptr<HostPlatform> g_platform;

}  // namespace

HostPlatform& Platform() {
    std::lock_guard lock(g_platformMutex);
    if (!g_platform) {
        const auto& profile = MachineProfile::Current();
        g_platform = std::make_unique<HostPlatform>();
        g_platform->services = platform::MakeServiceControlManager(profile);
        g_platform->clock = std::shared_ptr<platform::Clock>(&platform::RealClock(), [](platform::Clock*) {});
        g_platform->mutexes = std::make_shared<platform::NamedMutexSpace>(profile.runDir);
    }
    return *g_platform;
}

void SetPlatform(HostPlatform platform) {
    std::lock_guard lock(g_platformMutex);
    g_platform = std::make_unique<HostPlatform>(std::move(platform));
}

}  // namespace qlb::servicehost
