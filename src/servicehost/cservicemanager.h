#pragma once
// CServiceManager: the thin wrapper over the service manager that the command line switches and the
// start of "LCD_Service" use. Its results are not uniform, and several report success when the work
// was not done; callers rely on each as it stands.

#include "platform/services/service_control.h"
#include "runtime/common/win_types.h"

inline constexpr wchar_t kMainServiceName[] = L"QLBMainService";
inline constexpr wchar_t kMainServiceDisplayName[] = L"ZorVane Assistant Windows Service";
inline constexpr wchar_t kLcdServiceName[] = L"LCD_Service";

class CServiceManager {
  public:
    // Over the host platform's service manager.
    CServiceManager();
    explicit CServiceManager(qlb::platform::ServiceControlManager& scm);

    // 1 unless the manager cannot be opened; a failed creation still gives 1.
    int Install(const wchar_t* serviceName, const wchar_t* displayName, const wchar_t* binaryPath);
    // 1 if deleted, or if the delete failed after the service stopped; 0 if it did not reach stopped or
    // could not be opened.
    int Uninstall(const wchar_t* serviceName);
    // 1 only if this call started the service.
    int Startup(const wchar_t* serviceName);
    // 1 only if a stop control was accepted; 0 also for a stopped service.
    int Stop(const wchar_t* serviceName);
    // dwCurrentState, or 0xFFFFFFFF on failure.
    unsigned long GetServiceState(const wchar_t* serviceName);
    int IsInstalled(const wchar_t* serviceName);

  private:
    // The pair of opens (manager, then service) that Uninstall, Startup, Stop and GetServiceState
    // begin with; the error of the one that failed.
    SysStatus GetScmAndSvrHandle(const wchar_t* serviceName);

    qlb::platform::ServiceControlManager& scm_;
};
