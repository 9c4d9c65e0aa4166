#pragma once
// The records and numbers of service control, as a Windows service sees them: SERVICE_STATUS, the
// states, the controls and the bits of the accepted-controls mask. Both the manager side (tools,
// CServiceManager) and the service process side speak in these.

#include <string>

#include "runtime/common/win_types.h"

struct SERVICE_STATUS {
    DWORD dwServiceType = 0;
    DWORD dwCurrentState = 0;
    DWORD dwControlsAccepted = 0;
    DWORD dwWin32ExitCode = 0;
    DWORD dwServiceSpecificExitCode = 0;
    DWORD dwCheckPoint = 0;
    DWORD dwWaitHint = 0;
};

// The payload of a session change control.
struct WTSSESSION_NOTIFICATION {
    DWORD cbSize = sizeof(WTSSESSION_NOTIFICATION);
    DWORD dwSessionId = 0;
};

// Handler of a service's controls; its result goes back to the manager.
using LPHANDLER_FUNCTION_EX = DWORD (*)(DWORD control, DWORD eventType, void* eventData, void* context);
using LPSERVICE_MAIN_FUNCTIONW = void (*)(DWORD argc, wchar_t** argv);

struct SERVICE_TABLE_ENTRYW {
    const wchar_t* lpServiceName = nullptr;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc = nullptr;
};

// A registered control handler; null when registration failed.
using SERVICE_STATUS_HANDLE = void*;

inline constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 0x10;
inline constexpr DWORD SERVICE_WIN32_SHARE_PROCESS = 0x20;
inline constexpr DWORD SERVICE_INTERACTIVE_PROCESS = 0x100;

inline constexpr DWORD SERVICE_STOPPED = 1;
inline constexpr DWORD SERVICE_START_PENDING = 2;
inline constexpr DWORD SERVICE_STOP_PENDING = 3;
inline constexpr DWORD SERVICE_RUNNING = 4;
inline constexpr DWORD SERVICE_CONTINUE_PENDING = 5;
inline constexpr DWORD SERVICE_PAUSE_PENDING = 6;
inline constexpr DWORD SERVICE_PAUSED = 7;

inline constexpr DWORD SERVICE_CONTROL_STOP = 1;
inline constexpr DWORD SERVICE_CONTROL_PAUSE = 2;
inline constexpr DWORD SERVICE_CONTROL_CONTINUE = 3;
inline constexpr DWORD SERVICE_CONTROL_INTERROGATE = 4;
inline constexpr DWORD SERVICE_CONTROL_SHUTDOWN = 5;
inline constexpr DWORD SERVICE_CONTROL_PARAMCHANGE = 6;
inline constexpr DWORD SERVICE_CONTROL_NETBINDADD = 7;
inline constexpr DWORD SERVICE_CONTROL_NETBINDREMOVE = 8;
inline constexpr DWORD SERVICE_CONTROL_NETBINDENABLE = 9;
inline constexpr DWORD SERVICE_CONTROL_NETBINDDISABLE = 10;
inline constexpr DWORD SERVICE_CONTROL_DEVICEEVENT = 11;
inline constexpr DWORD SERVICE_CONTROL_HARDWAREPROFILECHANGE = 12;
inline constexpr DWORD SERVICE_CONTROL_POWEREVENT = 13;
inline constexpr DWORD SERVICE_CONTROL_SESSIONCHANGE = 14;
inline constexpr DWORD SERVICE_CONTROL_PRESHUTDOWN = 15;
inline constexpr DWORD SERVICE_CONTROL_TIMECHANGE = 16;
inline constexpr DWORD SERVICE_CONTROL_TRIGGEREVENT = 32;

inline constexpr DWORD SERVICE_ACCEPT_STOP = 0x1;
inline constexpr DWORD SERVICE_ACCEPT_PAUSE_CONTINUE = 0x2;
inline constexpr DWORD SERVICE_ACCEPT_SHUTDOWN = 0x4;
inline constexpr DWORD SERVICE_ACCEPT_PARAMCHANGE = 0x8;
inline constexpr DWORD SERVICE_ACCEPT_NETBINDCHANGE = 0x10;
inline constexpr DWORD SERVICE_ACCEPT_HARDWAREPROFILECHANGE = 0x20;
inline constexpr DWORD SERVICE_ACCEPT_POWEREVENT = 0x40;
inline constexpr DWORD SERVICE_ACCEPT_SESSIONCHANGE = 0x80;
inline constexpr DWORD SERVICE_ACCEPT_PRESHUTDOWN = 0x100;
inline constexpr DWORD SERVICE_ACCEPT_TIMECHANGE = 0x200;
inline constexpr DWORD SERVICE_ACCEPT_TRIGGEREVENT = 0x400;

inline constexpr DWORD SERVICE_BOOT_START = 0;
inline constexpr DWORD SERVICE_SYSTEM_START = 1;
inline constexpr DWORD SERVICE_AUTO_START = 2;
inline constexpr DWORD SERVICE_DEMAND_START = 3;
inline constexpr DWORD SERVICE_DISABLED = 4;

inline constexpr DWORD SERVICE_ERROR_IGNORE = 0;
inline constexpr DWORD SERVICE_ERROR_NORMAL = 1;

inline constexpr DWORD SC_MANAGER_CONNECT = 0x1;
inline constexpr DWORD SC_MANAGER_CREATE_SERVICE = 0x2;
inline constexpr DWORD SC_MANAGER_ALL_ACCESS = 0xF003F;
inline constexpr DWORD SERVICE_ALL_ACCESS = 0xF01FF;

// Power and session event types that the service looks at.
inline constexpr DWORD PBT_APMSUSPEND = 0x4;
inline constexpr DWORD PBT_APMRESUMESUSPEND = 0x7;
inline constexpr DWORD PBT_APMRESUMEAUTOMATIC = 0x12;
inline constexpr DWORD WTS_CONSOLE_CONNECT = 0x1;
inline constexpr DWORD WTS_CONSOLE_DISCONNECT = 0x2;
inline constexpr DWORD WTS_REMOTE_CONNECT = 0x3;
inline constexpr DWORD WTS_REMOTE_DISCONNECT = 0x4;
inline constexpr DWORD WTS_SESSION_LOGON = 0x5;
inline constexpr DWORD WTS_SESSION_LOGOFF = 0x6;
inline constexpr DWORD WTS_SESSION_LOCK = 0x7;
inline constexpr DWORD WTS_SESSION_UNLOCK = 0x8;

namespace qlb::platform {

// A service's registration: what the manager's database holds.
struct ServiceConfig {
    std::wstring name;
    std::wstring displayName;
    std::wstring binaryPath;
    std::wstring objectName = L"LocalSystem";
    DWORD serviceType = SERVICE_WIN32_OWN_PROCESS;
    DWORD startType = SERVICE_AUTO_START;
    DWORD errorControl = SERVICE_ERROR_IGNORE;
};

// The mask bit a control needs, or 0 for controls every running service takes (interrogate and the
// user-defined range).
DWORD AcceptBitOfControl(DWORD control) noexcept;

}  // namespace qlb::platform
