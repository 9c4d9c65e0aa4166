// Disk figures and the system update start; both answer the sender. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnGetDiskInfo(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnStartupWindowsUpdate(TagIPCMessageItem& /*item*/) {}
