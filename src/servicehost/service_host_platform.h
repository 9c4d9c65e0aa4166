#pragma once
// The operating system as the service host sees it: its service manager, its clock and its named
// mutexes. The process entry makes the real ones from the machine profile; tests put fakes in place
// (a fake clock turns the daily wait and the start wait into single steps).

#include <memory>

#include "platform/services/service_control.h"
#include "platform/sync/clock.h"
#include "platform/sync/named_mutex.h"

namespace qlb::servicehost {

struct HostPlatform {
    std::shared_ptr<platform::ServiceControlManager> services;
    std::shared_ptr<platform::Clock> clock;
    std::shared_ptr<const platform::NamedMutexSpace> mutexes;
};

// The process-wide platform; made from the current machine profile on first use.
HostPlatform& Platform();
void SetPlatform(HostPlatform platform);

}  // namespace qlb::servicehost
