#include "platform/services/service_types.h"

namespace qlb::platform {

DWORD AcceptBitOfControl(DWORD control) noexcept {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            return SERVICE_ACCEPT_STOP;
        case SERVICE_CONTROL_PAUSE:
        case SERVICE_CONTROL_CONTINUE:
            return SERVICE_ACCEPT_PAUSE_CONTINUE;
        case SERVICE_CONTROL_SHUTDOWN:
            return SERVICE_ACCEPT_SHUTDOWN;
        case SERVICE_CONTROL_PARAMCHANGE:
            return SERVICE_ACCEPT_PARAMCHANGE;
        case SERVICE_CONTROL_NETBINDADD:
        case SERVICE_CONTROL_NETBINDREMOVE:
        case SERVICE_CONTROL_NETBINDENABLE:
        case SERVICE_CONTROL_NETBINDDISABLE:
            return SERVICE_ACCEPT_NETBINDCHANGE;
        case SERVICE_CONTROL_HARDWAREPROFILECHANGE:
            return SERVICE_ACCEPT_HARDWAREPROFILECHANGE;
        case SERVICE_CONTROL_POWEREVENT:
            return SERVICE_ACCEPT_POWEREVENT;
        case SERVICE_CONTROL_SESSIONCHANGE:
            return SERVICE_ACCEPT_SESSIONCHANGE;
        case SERVICE_CONTROL_PRESHUTDOWN:
            return SERVICE_ACCEPT_PRESHUTDOWN;
        case SERVICE_CONTROL_TIMECHANGE:
            return SERVICE_ACCEPT_TIMECHANGE;
        case SERVICE_CONTROL_TRIGGEREVENT:
            return SERVICE_ACCEPT_TRIGGEREVENT;
        default:
            return 0;
    }
}

}  // namespace qlb::platform
