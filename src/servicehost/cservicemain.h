#pragma once
// The spine of the running service: ServiceMain with PrepareService, the daily wait in
// ServiceMainLoop, the status reporter and the control handler for stop, shutdown, power and session
// events. ServiceMain runs on the thread the dispatcher gives it; the handler on the dispatcher's.

#include <memory>

#include "platform/services/service_types.h"
#include "platform/sync/clock.h"
#include "platform/sync/named_mutex.h"

inline constexpr wchar_t kServiceMutexName[] = L"QLBMainServiceHandle";
inline constexpr DWORD kPendingWaitHintMs = 3000;
inline constexpr DWORD kDailyWaitMs = 86400000;
inline constexpr DWORD kServiceProcessType = SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS;
// Shutdown, power event and session change: what start pending accepts.
inline constexpr DWORD kAcceptedWhilePending = 0xC4;
// The same and stop.
inline constexpr DWORD kAcceptedWhileRunning = 0xC5;

extern SERVICE_STATUS g_ServiceStatus;
extern SERVICE_STATUS_HANDLE g_hServiceStatus;
extern qlb::platform::ManualResetEvent* g_hStopEvent;
extern std::unique_ptr<qlb::platform::NamedMutexHandle> g_hServiceMutex;

// The status before the dispatcher starts: own interactive process, stopped, 0xC5, all else 0.
void InitServiceStatus();

void ReportStatus(SERVICE_STATUS_HANDLE handle, unsigned long state, unsigned long exitCode,
                  unsigned long waitHint);
void ServiceMain(DWORD argc, wchar_t** argv);
void PrepareService();
void ServiceMainLoop();
DWORD ServiceCtrlHandler(DWORD control, DWORD eventType, void* eventData, void* context);

namespace qlb::servicehost {
// Puts the check point counter back to its first value (tests of a fresh process).
void ResetCheckPointForTest();
}  // namespace qlb::servicehost
