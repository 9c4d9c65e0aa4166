#include "servicehost/cservicemain.h"

#include <curl/curl.h>

#include <exception>
#include <mutex>
#include <new>
#include <thread>

#include "consent/account_util.h"
#include "environment/system_environment.h"
#include "messageservice/service_msg_client.h"
#include "platform/services/service_dispatcher.h"
#include "runtime/common/app_paths.h"
#include "runtime/common/logging.h"
#include "runtime/common/program_dir.h"
#include "runtime/common/show_memory.h"
#include "runtime/common/soft_shelf.h"
#include "runtime/common/strings.h"
#include "runtime/hardware/baseboard.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/process/mon_process.h"
#include "runtime/telemetry/event_data_report.h"
#include "runtime/telemetry/log_monitor.h"
#include "runtime/telemetry/log_perform.h"
#include "servicehost/cservicemanager.h"
#include "servicehost/power_events.h"
#include "servicehost/service_events.h"
#include "servicehost/service_host_platform.h"
#include "servicehost/service_init.h"
#include "servicehost/service_stages.h"

SERVICE_STATUS g_ServiceStatus;
SERVICE_STATUS_HANDLE g_hServiceStatus = nullptr;
qlb::platform::ManualResetEvent* g_hStopEvent = nullptr;
std::unique_ptr<qlb::platform::NamedMutexHandle> g_hServiceMutex;

namespace {

// Starts at 1 and is never reset: each pending report takes the next value.
DWORD g_dwCheckPoint = 1;

// The handler and ServiceMain report from two threads; each report is made whole under this lock, so
// the status fields and the check point never tear. Nothing else in the service host locks.
std::mutex g_reportMutex;

DWORD ReportedState() {
    std::lock_guard lock(g_reportMutex);
    return g_ServiceStatus.dwCurrentState;
}

// The stop event lives for the process; a second start in one process (tests) replaces it.
std::unique_ptr<qlb::platform::ManualResetEvent> g_stopEventStorage;

bool IsBigDataOn() {
    return QLBSoftShelf::GetInstance()->IsSupportPlugin("BigData");
}

// Commercial builds, which keep the small crash dumps, are not made for this platform.
bool IsCommercialBuild() {
    return false;
}

// The thread starts, takes its arguments, and is left to itself.
template <typename Fn>
void StartDetached(Fn&& fn) {
    std::thread(std::forward<Fn>(fn)).detach();
}

}  // namespace

namespace qlb::servicehost {
void ResetCheckPointForTest() {
    g_dwCheckPoint = 1;
}
}  // namespace qlb::servicehost

void InitServiceStatus() {
    g_ServiceStatus.dwServiceType = kServiceProcessType;
    g_ServiceStatus.dwCurrentState = SERVICE_STOPPED;
    g_ServiceStatus.dwControlsAccepted = kAcceptedWhileRunning;
    g_ServiceStatus.dwWin32ExitCode = 0;
    g_ServiceStatus.dwServiceSpecificExitCode = 0;
    g_ServiceStatus.dwCheckPoint = 0;
    g_ServiceStatus.dwWaitHint = 0;
}

void ReportStatus(SERVICE_STATUS_HANDLE /*handle*/, unsigned long state, unsigned long /*exitCode*/,
                  unsigned long waitHint) {
    std::lock_guard lock(g_reportMutex);
    g_ServiceStatus.dwCurrentState = state;
    g_ServiceStatus.dwWin32ExitCode = 0;
    g_ServiceStatus.dwWaitHint = waitHint;
    // Stop is refused while start is pending.
    g_ServiceStatus.dwControlsAccepted =
        state == SERVICE_START_PENDING ? kAcceptedWhilePending : kAcceptedWhileRunning;
    if (state == SERVICE_RUNNING || state == SERVICE_STOPPED) {
        g_ServiceStatus.dwCheckPoint = 0;
    } else {
        g_ServiceStatus.dwCheckPoint = g_dwCheckPoint++;
    }
    if (const auto st = SetServiceStatus(g_hServiceStatus, &g_ServiceStatus); !st) {
        QLOG_ERROR("set service status failed, error code=" << st.error);
    }
}

void PrepareService() {
    ReportStatus(nullptr, SERVICE_START_PENDING, 0, kPendingWaitHintMs);

    g_stopEventStorage.reset(new (std::nothrow) qlb::platform::ManualResetEvent());
    g_hStopEvent = g_stopEventStorage.get();
    if (!g_hStopEvent) {
        QLOG_ERROR("[CreateEvent] Error: " << win::ERROR_NOT_ENOUGH_MEMORY);
        return;
    }

    QLOG_WARN("ServiceMain Enter InitService.");
    ShowMemory(L"Enter InitService()");
    if (!InitService()) {
        QLOG_WARN("Service Main: fail to Init Service.");
        return;
    }

    QLOG_WARN("ServiceMain Enter StartLcdService.");
    if (auto* manager = new (std::nothrow) CServiceManager()) {
        const unsigned long state = manager->GetServiceState(kLcdServiceName);
        // 0x20 is no service state; the comparison stays as the product has always made it.
        if (state == SERVICE_STOPPED || state == 0x20) {
            manager->Startup(kLcdServiceName);
        }
        delete manager;
    }

    ReportPlainEvent(ServiceEvents::kPowerMode, SystemEnvironment::GetPowerManagerIntellMode());
    {
        Baseboard board;
        ReportPlainEvent(ServiceEvents::kBiosDate, DE::UnicodeToANSI(board.GetBIOSReaseDate()));
    }

    QLOG_WARN("ServiceMain Enter ReportInstallStatus.");
    ReportInstallStatus();
    (void)ServiceMsgClient::BootMainServiceAlive();

    QLOG_WARN("ServiceMain Enter ReportStatus.");
    ReportStatus(nullptr, SERVICE_RUNNING, 0, 0);
}

void ServiceMainLoop() {
    const auto& platform = qlb::servicehost::Platform();
    if (auto opened = platform.mutexes->Open(kServiceMutexName); opened.ok()) {
        g_hServiceMutex = std::move(opened.value);
    } else if (auto created = platform.mutexes->Create(kServiceMutexName); created.ok()) {
        g_hServiceMutex = std::move(created.value.handle);
        if (created.value.lastError == win::ERROR_ALREADY_EXISTS) {
            QLOG_WARN("CreateMutex QLBMainServiceHandle ERROR_ALREADY_EXISTS:" << created.value.lastError);
            g_hServiceMutex.reset();
        }
    }

    const bool retail = DE::IsRetailComputer();
    for (;;) {
        ReportPlainEvent(ServiceEvents::kDailyAlive, "");
        if (retail) {
            ReportPlainEvent(ServiceEvents::kRetailAlive, "");
        }
        StartDetached([] { OnlineVerifyMainService(); });
        if (AccountUtil::IsSupportQds()) {
            StartDetached([] { RefreshConsentState(); });
        }
        if (platform.clock->WaitForEvent(g_hStopEvent, kDailyWaitMs) != WAIT_TIMEOUT) {
            break;
        }
    }

    g_hServiceMutex.reset();
}

void ServiceMain(DWORD /*argc*/, wchar_t** /*argv*/) {
    try {
        QLOG_WARN("ServiceMain enter.");
        ShowMemory(L"Enter g_MsgClient.Initialize()");
        if (!g_MsgClient.Initialize()) {
            QLOG_ERROR("Service Main MsgClient Initialize failed");
            return;
        }

        DealRegExepired();

        QLOG_WARN("ServiceMain RegisterServiceCtrlHandlerExW.");
        const auto registered = RegisterServiceCtrlHandlerExW(kMainServiceName, ServiceCtrlHandler, nullptr);
        g_hServiceStatus = registered.value;
        if (!g_hServiceStatus) {
            QLOG_WARN("Service Main: Register Service Ctrl Handler failed.");
            return;
        }

        ShowMemory(L"Enter PrepareService()");
        PrepareService();

        void* psiModule = LoadPSIModule();
        if (!IsCommercialBuild()) {
            RelaxCrashDumpType();
        }
        if (IsBigDataOn()) {
            LogMonitor::Instance().UpLoadReefAndBI();
        }

        QLOG_WARN("ServiceMain Enter StartMainServiceMonitor.");
        StartDetached([] { StartMainServiceMonitor(); });
        WriteUuid();

        ShowMemory(L"Enter ServiceMainLoop()");
        ServiceMainLoop();

        QLOG_WARN("ServiceMain loop exit.");
        FreePSIModule(psiModule);
        StopServerConfigService();

        QLOG_WARN("ServiceMain enter OpensllLock uninit.");
        OpensllLock::GetInstance()->UnInit();

        ReportPlainEvent(ServiceEvents::kServiceStopped, "");
        ReportStatus(nullptr, SERVICE_STOPPED, 0, 0);

        if (g_pObjIPCMsgSrv) {
            g_pObjIPCMsgSrv->Stop();
            delete g_pObjIPCMsgSrv;
            g_pObjIPCMsgSrv = nullptr;
        }
    } catch (const std::exception& e) {
        QLOG_ERROR("ServiceMain,exception:" << e.what());
    }
}

namespace {

void OnStopControl() {
    ReportStatus(nullptr, SERVICE_STOP_PENDING, 0, kPendingWaitHintMs);
    UnloadAllPluginsOfService(true);
    if (IsBigDataOn()) {
        LogPerform::Instance().QueueToDisk();
        LogMonitor::Instance().SetStopFlag(true);
    }
    curl_global_cleanup();
    if (g_hStopEvent) {
        g_hStopEvent->Set();
    }
}

// The machine goes down around the service: no stop event, no plugin unloaded.
void OnShutdownControl() {
    DisableAppReadiness();
    const std::wstring ownPath = qlb::SelfPath().wstring();
    if (!ownPath.empty()) {
        void* module = nullptr;
        MonProcess* monitor = nullptr;
        if (LoadMonProcess(module, monitor) && monitor) {
            (void)monitor->ShutdownNotice(ownPath.c_str());
        }
        ReleaseMonProcess(module, monitor);
    }
    if (IsBigDataOn()) {
        LogPerform::Instance().QueueToDisk();
        LogMonitor::Instance().SetStopFlag(true);
    }
    SentPowerEventToWDT(kWdtEventShutdown);
}

}  // namespace

DWORD ServiceCtrlHandler(DWORD control, DWORD eventType, void* eventData, void* /*context*/) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            OnStopControl();
            break;
        case SERVICE_CONTROL_SHUTDOWN:
            OnShutdownControl();
            break;
        case SERVICE_CONTROL_POWEREVENT:
            // Only a suspend is told to the watchdog; a resume sends nothing.
            if (eventType == PBT_APMSUSPEND) {
                SentPowerEventToWDT(kWdtEventSuspend);
            }
            break;
        case SERVICE_CONTROL_SESSIONCHANGE: {
            auto* notification = static_cast<WTSSESSION_NOTIFICATION*>(eventData);
            switch (eventType) {
                case WTS_CONSOLE_DISCONNECT:
                case WTS_SESSION_LOGOFF:
                case WTS_SESSION_LOCK:
                    if (notification) {
                        g_LastSessionId = notification->dwSessionId;
                    }
                    break;
                case WTS_SESSION_LOGON:
                case WTS_SESSION_UNLOCK:
                    ServiceOnLogonWindows(eventType, notification);
                    break;
                default:
                    break;
            }
            break;
        }
        default:
            break;
    }
    // Every control ends with the current state again: the wait hint goes to 0 and, while stop is
    // pending, the check point moves on.
    ReportStatus(nullptr, ReportedState(), 0, 0);
    return 0;
}
