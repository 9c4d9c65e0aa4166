#include "platform/services/service_dispatcher.h"

#include <mutex>
#include <string>
#include <thread>

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"

namespace qlb::platform {
namespace {

struct DispatcherState {
    std::mutex mutex;
    std::unique_ptr<ServiceProcessHost> host;
    bool dispatching = false;
    std::wstring name;
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    SERVICE_STATUS status;  // the last status the service published
    // Publishing is one step from the check to the host's write, so that the handler's closing report
    // cannot overtake the stopped report of ServiceMain on its way out.
    std::mutex publishMutex;
    bool stoppedReported = false;
};

DispatcherState& State() {
    static DispatcherState state;
    return state;
}

SysResult<SERVICE_STATUS> Deliver(const ControlRequest& request) {
    using R = SysResult<SERVICE_STATUS>;
    auto& state = State();
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    {
        std::lock_guard lock(state.mutex);
        if (state.status.dwCurrentState == SERVICE_STOPPED) {
            return R::Fail(win::ERROR_SERVICE_NOT_ACTIVE);
        }
        if (!state.handler) {
            return R::Fail(win::ERROR_SERVICE_CANNOT_ACCEPT_CTRL);
        }
        const DWORD bit = AcceptBitOfControl(request.control);
        if (bit != 0 && (state.status.dwControlsAccepted & bit) == 0) {
            return R::Fail(win::ERROR_INVALID_SERVICE_CONTROL);
        }
        handler = state.handler;
        context = state.context;
    }
    WTSSESSION_NOTIFICATION notification;
    notification.dwSessionId = request.sessionId;
    void* eventData = request.control == SERVICE_CONTROL_SESSIONCHANGE ? &notification : nullptr;
    handler(request.control, request.eventType, eventData, context);
    std::lock_guard lock(state.mutex);
    return R::Ok(state.status);
}

}  // namespace

void SetServiceProcessHost(std::unique_ptr<ServiceProcessHost> host) {
    std::lock_guard lock(State().mutex);
    State().host = std::move(host);
}

}  // namespace qlb::platform

using namespace qlb::platform;

SysStatus StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW* table) {
    if (!table || !table[0].lpServiceName || !table[0].lpServiceProc) {
        return SysStatus::Fail(win::ERROR_INVALID_PARAMETER);
    }
    auto& state = State();
    ServiceProcessHost* host = nullptr;
    {
        std::lock_guard lock(state.mutex);
        if (state.dispatching) {
            return SysStatus::Fail(win::ERROR_SERVICE_ALREADY_RUNNING);
        }
        if (!state.host) {
            state.host = MakeServiceProcessHost(qlb::MachineProfile::Current());
        }
        host = state.host.get();
    }
    const std::wstring name = table[0].lpServiceName;
    if (auto st = host->Attach(name); !st) {
        return st;
    }
    {
        std::lock_guard lock(state.mutex);
        state.dispatching = true;
        state.name = name;
        state.handler = nullptr;
        state.context = nullptr;
        state.status = SERVICE_STATUS{};
        state.status.dwCurrentState = SERVICE_START_PENDING;
        state.stoppedReported = false;
    }
    std::wstring argv0 = name;
    wchar_t* argv[] = {argv0.data(), nullptr};
    std::thread serviceMain(table[0].lpServiceProc, 1, argv);
    host->ServeControls(&Deliver);
    serviceMain.join();
    std::lock_guard lock(state.mutex);
    state.dispatching = false;
    state.handler = nullptr;
    state.context = nullptr;
    return SysStatus::Ok();
}

SysResult<SERVICE_STATUS_HANDLE> RegisterServiceCtrlHandlerExW(const wchar_t* serviceName,
                                                               LPHANDLER_FUNCTION_EX handler, void* context) {
    using R = SysResult<SERVICE_STATUS_HANDLE>;
    auto& state = State();
    std::lock_guard lock(state.mutex);
    if (!handler) {
        return R::Fail(win::ERROR_INVALID_PARAMETER);
    }
    if (!state.dispatching || !serviceName || !qlb::EqualsNoCase(state.name, serviceName)) {
        return R::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
    }
    state.handler = handler;
    state.context = context;
    return R::Ok(static_cast<SERVICE_STATUS_HANDLE>(&state));
}

SysStatus SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS* status) {
    auto& state = State();
    std::lock_guard publishing(state.publishMutex);
    ServiceProcessHost* host = nullptr;
    {
        std::lock_guard lock(state.mutex);
        // After the stopped report the handle is no longer valid, as with the Windows manager.
        if (!handle || handle != &state || !state.dispatching || state.stoppedReported) {
            return SysStatus::Fail(win::ERROR_INVALID_HANDLE);
        }
        if (!status) {
            return SysStatus::Fail(win::ERROR_INVALID_PARAMETER);
        }
        state.status = *status;
        state.stoppedReported = status->dwCurrentState == SERVICE_STOPPED;
        host = state.host.get();
    }
    const SysStatus published = host->SetStatus(*status);
    if (status->dwCurrentState == SERVICE_STOPPED) {
        host->StopServing();
    }
    return published;
}
