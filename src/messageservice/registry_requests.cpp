// Registry and setting requests. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnRegEdit(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnRecvLogSwitch(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnRecvCaptureSwitch(TagIPCMessageItem& /*item*/) {}

// The process monitor module is not loadable yet: nothing is told, and the load counts as failed.
int ServiceMsgClient::BootMainServiceAlive() {
    return 0;
}
