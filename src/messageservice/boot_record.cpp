// The boot record query, answered once per process. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnRecvBootRecordQuery(TagIPCMessageItem& /*item*/) {}
