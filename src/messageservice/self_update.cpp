// The self-update request and the update worker's flags. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnStartUpdateInstall(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnUpdate(TagIPCMessageItem& /*item*/) {}
