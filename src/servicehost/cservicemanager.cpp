#include "servicehost/cservicemanager.h"

#include "platform/services/service_types.h"
#include "runtime/common/logging.h"
#include "runtime/common/strings.h"
#include "runtime/http/url_loader.h"
#include "servicehost/service_host_platform.h"

namespace {

constexpr DWORD kServiceOpenAccess = 0xF0000;  // STANDARD_RIGHTS_REQUIRED: enough to see the service
constexpr DWORD kPollIntervalMs = 1000;

std::wstring NameOf(const wchar_t* name) {
    return name ? std::wstring(name) : std::wstring();
}

}  // namespace

CServiceManager::CServiceManager() : scm_(*qlb::servicehost::Platform().services) {}

CServiceManager::CServiceManager(qlb::platform::ServiceControlManager& scm) : scm_(scm) {}

SysStatus CServiceManager::GetScmAndSvrHandle(const wchar_t* serviceName) {
    if (auto st = scm_.Connect(SC_MANAGER_CONNECT); !st) {
        return st;
    }
    return scm_.OpenService(NameOf(serviceName), SERVICE_ALL_ACCESS);
}

int CServiceManager::IsInstalled(const wchar_t* serviceName) {
    if (auto st = scm_.Connect(SC_MANAGER_ALL_ACCESS); !st) {
        QLOG_ERROR("fail to open scm manager. error=" << st.error);
        return 0;
    }
    if (auto st = scm_.OpenService(NameOf(serviceName), kServiceOpenAccess); !st) {
        QLOG_ERROR("fail to open service. error=" << st.error
                                                  << ", serviceName=" << qlb::W2U(NameOf(serviceName)));
        return 0;
    }
    return 1;
}

int CServiceManager::Install(const wchar_t* serviceName, const wchar_t* displayName,
                             const wchar_t* binaryPath) {
    if (IsInstalled(serviceName) == 1) {
        return 1;
    }
    if (auto st = scm_.Connect(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE); !st) {
        QLOG_ERROR("[CServiceManager::Install]: OpenSCManagerW Error: " << st.error);
        return 0;
    }
    qlb::platform::ServiceConfig config;
    config.name = NameOf(serviceName);
    config.displayName = NameOf(displayName);
    config.binaryPath = NameOf(binaryPath);
    config.serviceType = SERVICE_WIN32_OWN_PROCESS;
    config.startType = SERVICE_AUTO_START;
    config.errorControl = SERVICE_ERROR_IGNORE;
    // A refused creation is neither logged nor returned: the result stays 1.
    (void)scm_.CreateService(config);
    return 1;
}

int CServiceManager::Uninstall(const wchar_t* serviceName) {
    const std::wstring name = NameOf(serviceName);
    if (auto st = GetScmAndSvrHandle(serviceName); !st) {
        QLOG_ERROR("Service Manager::Uninstall: fail to Get Scm And SvrHandle.");
        return 0;
    }
    auto& clock = *qlb::servicehost::Platform().clock;
    if (const auto control = scm_.ControlService(name, SERVICE_CONTROL_STOP); control.ok()) {
        // The status record is shared by the control and the queries: a failed query leaves what the
        // last good one (or the control) saw.
        DWORD lastState = control.value.dwCurrentState;
        clock.Sleep(kPollIntervalMs);
        auto status = scm_.QueryServiceStatus(name);
        if (status.ok()) {
            lastState = status.value.dwCurrentState;
        }
        while (status.ok() && status.value.dwCurrentState == SERVICE_STOP_PENDING) {
            clock.Sleep(kPollIntervalMs);
            status = scm_.QueryServiceStatus(name);
            if (status.ok()) {
                lastState = status.value.dwCurrentState;
            }
        }
        if (lastState != SERVICE_STOPPED) {
            return 0;
        }
    }
    if (auto st = scm_.DeleteService(name); !st) {
        QLOG_ERROR("Service Manager::Uninstall: fail to delete service. error=" << st.error);
    }
    return 1;
}

int CServiceManager::Startup(const wchar_t* serviceName) {
    const std::wstring name = NameOf(serviceName);
    if (auto st = GetScmAndSvrHandle(serviceName); !st) {
        QLOG_ERROR("[CServiceManager::Startup]: GetScmAndSvrHandle Error: " << st.error);
        return 0;
    }
    int result = 0;
    const auto status = scm_.QueryServiceStatus(name);
    if (!status) {
        QLOG_ERROR("[CServiceManager::Startup]: QueryServiceStatus Error: " << status.error);
    }
    // Only a stopped service is started; any other state is "nothing done", not a failure.
    if (status.ok() && status.value.dwCurrentState == SERVICE_STOPPED) {
        if (auto st = scm_.StartService(name); !st) {
            QLOG_ERROR("[CServiceManager::Startup]: StartServiceW Error: " << st.error);
        } else {
            result = 1;
        }
    }
    return result;
}

int CServiceManager::Stop(const wchar_t* serviceName) {
    const std::wstring name = NameOf(serviceName);
    int result = 0;
    if (auto st = GetScmAndSvrHandle(serviceName); !st) {
        QLOG_ERROR("Service Manager::Stop: fail to Get Scm And SvrHandle.");
    } else if (const auto status = scm_.QueryServiceStatus(name); !status) {
        QLOG_ERROR("Service Manager::Stop: fail to Query Service Status. error=" << status.error);
    } else if (status.value.dwCurrentState != SERVICE_STOPPED) {
        if (const auto control = scm_.ControlService(name, SERVICE_CONTROL_STOP); !control) {
            QLOG_ERROR("Service Manager::Stop: fail to Control Service. error=" << control.error);
        } else {
            result = 1;
        }
    }
    // Whatever happened, the URL loader of this process goes.
    UrlLoader::GetInstance().Stop();
    return result;
}

unsigned long CServiceManager::GetServiceState(const wchar_t* serviceName) {
    if (auto st = GetScmAndSvrHandle(serviceName); !st) {
        QLOG_ERROR("[CServiceManager::GetServiceState]: GetScmAndSvrHandle Error: " << st.error);
        return 0xFFFFFFFF;
    }
    const auto status = scm_.QueryServiceStatus(NameOf(serviceName));
    if (!status) {
        QLOG_ERROR("[CServiceManager::GetServiceState]: QueryServiceStatus Error: " << status.error);
        return 0xFFFFFFFF;
    }
    return status.value.dwCurrentState;
}
