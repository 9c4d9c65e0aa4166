// Log capture requests: eight ids, one routine. Pending: not yet implemented.

#include "messageservice/service_msg_client.h"

void ServiceMsgClient::OnReceiveCaptureLogMsgPerf(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogMsgWIFI(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogMsgBT(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogMsgStability(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogMsgGoodix(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogMsgAudio(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogMsgGfx(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogMsgGlidePad(TagIPCMessageItem& /*item*/) {}

void ServiceMsgClient::OnReceiveCaptureLogBase(TagIPCMessageItem& /*item*/, std::string /*label*/) {}
