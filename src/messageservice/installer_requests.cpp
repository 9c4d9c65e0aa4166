// Installer requests: driver setup and the three application installers. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnSetupDriver(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnStartInstallNimbra(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnStartInstallVrAssistant(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnStartInstallApp(TagIPCMessageItem& /*item*/) {}
