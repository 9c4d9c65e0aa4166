#include "messageservice/service_msg_client.h"

ServiceMsgClient g_MsgClient;

ServiceMsgClient::~ServiceMsgClient() = default;

// The channel is not joined yet: no client, no handlers.
bool ServiceMsgClient::Initialize() {
    return false;
}

void ServiceMsgClient::OnRecvPCMonitorLog(LogInfo& /*record*/) {}
