// The service's side of the channel end to end: Initialize joins the hub of the profile and binds the
// table, and requests sent by another module through the hub take effect.

#include "messageservice/service_msg_client.h"

#include "message_service_fixture.h"
#include "messageservice/ipc_data_io.h"
#include "messageservice/ipc_server_proc.h"
#include "messageservice/registry_requests.h"
#include "runtime/ipc/ipc_message_client.h"
#include "runtime/ipc/ipc_message_ids.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/ipc_module_ids.h"
#include "runtime/telemetry/event_data_report.h"

using namespace qlb::messageservice;
using namespace qlb::messageservice::test;
using qlb::testing::Eventually;

namespace {

class ServiceMsgClientTest : public MessageServiceMachine {};

TEST_F(ServiceMsgClientTest, RequestsFromAnotherModuleTakeEffectThroughTheHub) {
    // The service builds its client before the hub starts.
    ServiceMsgClient handlers;
    ASSERT_TRUE(handlers.Initialize());
    IPCMessageServer hub;
    ASSERT_TRUE(hub.Start());
    IPCMessageClient module(0x500000, hub.SocketPath());
    ASSERT_TRUE(module.WaitJoined(std::chrono::seconds(20)));
    ASSERT_TRUE(handlers.client->WaitJoined(std::chrono::seconds(20)));

    const char one[] = "1";
    TagIPCMessageItem item;
    item.toModuleId = MODULE_MAINSERVICE_ID;
    item.fromModuleId = 0x500000;
    item.messageId = MSG_LOG_SWITCH;
    item.data = reinterpret_cast<unsigned char*>(const_cast<char*>(one));
    item.dataLength = sizeof(one);
    ASSERT_TRUE(module.PostIPCMessage(item));
    EXPECT_TRUE(Eventually([] { return Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch") == L"1"; }));

    // The one typed message goes through the table of typed handlers.
    LogInfo info;
    info.eventId = "601000123";
    info.fields[0] = "from a module";
    auto payload = EncodeLogInfoPayload(info);
    item.messageId = MSG_PCMONITOR_LOG;
    item.data = payload.data();
    item.dataLength = static_cast<std::int32_t>(payload.size());
    ASSERT_TRUE(module.PostIPCMessage(item));
    EXPECT_TRUE(Eventually([&] {
        const std::string text = qlb::testing::ReadFile(root_ / "appdata/telemetry/events.jsonl");
        return text.find("601000123") != std::string::npos && text.find("from a module") != std::string::npos;
    }));

    // A second Initialize replaces the channel and leaves nothing behind.
    ASSERT_TRUE(handlers.Initialize());
    EXPECT_EQ(handlers.procTable->client, handlers.client);
}

}  // namespace
