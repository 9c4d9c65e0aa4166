#pragma once
// The service process's side of the Windows service API: the dispatcher runs ServiceMain on a thread
// of its own and keeps the calling thread to deliver controls to the registered handler, one at a
// time, until the service reports stopped. Failures come back with their Windows error number.

#include <memory>

#include "platform/services/service_control.h"
#include "platform/services/service_types.h"

// Returns once the service has reported stopped and its ServiceMain has returned. 1063 when the
// process was not started by the service manager.
SysStatus StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW* table);

// Only from the ServiceMain of the service being dispatched; the handler then runs on the
// dispatcher's thread.
SysResult<SERVICE_STATUS_HANDLE> RegisterServiceCtrlHandlerExW(const wchar_t* serviceName,
                                                               LPHANDLER_FUNCTION_EX handler, void* context);

SysStatus SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS* status);

namespace qlb::platform {

// The host the dispatcher works through; by default made from the current machine profile. Tests put a
// fake in place before starting the dispatcher.
void SetServiceProcessHost(std::unique_ptr<ServiceProcessHost> host);

}  // namespace qlb::platform
