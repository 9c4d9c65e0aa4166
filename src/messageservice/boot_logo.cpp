// Boot logo requests; every answer goes to the boot logo module. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnRecvSetLogo(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnRecvLogoStatusGet(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnRecLogoSupportQuery(TagIPCMessageItem& /*item*/) {}
