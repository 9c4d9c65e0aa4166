// The product's firewall rule. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnRecvInitFirewall(TagIPCMessageItem& /*item*/) {}
