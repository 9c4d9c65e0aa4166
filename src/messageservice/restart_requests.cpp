// Restart and shutdown. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnRestartPC(TagIPCMessageItem& /*item*/) {}
