// The service's side of the channel end to end: Initialize joins the hub of the profile and binds the
// table, and requests sent by another module through the hub take effect.

#include "messageservice/service_msg_client.h"

#include <fstream>

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

namespace {

constexpr auto kWait = std::chrono::seconds(20);

template <typename Predicate>
bool WaitUntil(Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

const std::int32_t kTableIds[28] = {MSG_REG_EDIT,
                                    MSG_START_MSG_CENTER,
                                    MSG_GET_DISK_INFO,
                                    MSG_STARTUP_WINDOWS_UPDATE,
                                    MSG_SETUP_DRIVER,
                                    MSG_START_UPDATE_INSTALL,
                                    MSG_PCMONITOR_LOG,
                                    MSG_CAPTURE_LOG_PERF,
                                    MSG_CAPTURE_LOG_WIFI,
                                    MSG_CAPTURE_LOG_BT,
                                    MSG_CAPTURE_LOG_STABILITY,
                                    MSG_CAPTURE_LOG_GOODIX,
                                    MSG_CAPTURE_LOG_AUDIO,
                                    MSG_CAPTURE_LOG_GFX,
                                    MSG_CAPTURE_LOG_GLIDEPAD,
                                    MSG_LOG_SWITCH,
                                    MSG_CAPTURE_SWITCH,
                                    MSG_INIT_FIREWALL,
                                    MSG_SET_LOGO,
                                    MSG_LOGO_STATUS_GET,
                                    MSG_LOGO_SUPPORT_QUERY,
                                    MSG_RESTART_PC,
                                    MSG_FORCE_KILL,
                                    MSG_UPDATE,
                                    MSG_START_INSTALL_NIMBRA,
                                    MSG_START_INSTALL_VRASSISTANT,
                                    MSG_START_INSTALL_APP,
                                    MSG_BOOT_RECORD_QUERY};

class ServiceMsgClientTest : public MessageServiceMachine {};

TEST_F(ServiceMsgClientTest, FreshObjectHoldsNothing) {
    ServiceMsgClient handlers;
    EXPECT_EQ(handlers.updateFlags.load(), 0u);
    EXPECT_EQ(handlers.client, nullptr);
    EXPECT_EQ(handlers.procTable, nullptr);
}

TEST_F(ServiceMsgClientTest, InitializeBindsExactlyTheTwentyEightMessages) {
    ServiceMsgClient handlers;
    ASSERT_TRUE(handlers.Initialize());
    ASSERT_NE(handlers.client, nullptr);
    ASSERT_NE(handlers.procTable, nullptr);
    EXPECT_EQ(handlers.procTable->client, handlers.client);
    EXPECT_FALSE(handlers.procTable->ownsClient);
    EXPECT_EQ(handlers.procTable->procs.size(), 1u);
    EXPECT_EQ(handlers.procTable->procs.count(MSG_PCMONITOR_LOG), 1u);
    EXPECT_FALSE(handlers.client->UnRegisterMessageCallback(0x30014));
    EXPECT_FALSE(handlers.client->UnRegisterMessageCallback(0x30016));
    for (std::int32_t id : kTableIds) {
        EXPECT_TRUE(handlers.client->UnRegisterMessageCallback(id)) << std::hex << id;
    }
}

TEST_F(ServiceMsgClientTest, RequestsFromAnotherModuleTakeEffectThroughTheHub) {
    // The service builds its client before the hub starts.
    ServiceMsgClient handlers;
    ASSERT_TRUE(handlers.Initialize());
    IPCMessageServer hub;
    ASSERT_TRUE(hub.Start());
    IPCMessageClient module(0x500000, hub.SocketPath());
    ASSERT_TRUE(module.WaitJoined(kWait));
    ASSERT_TRUE(handlers.client->WaitJoined(kWait));

    const char one[] = "1";
    TagIPCMessageItem item;
    item.toModuleId = MODULE_MAINSERVICE_ID;
    item.fromModuleId = 0x500000;
    item.messageId = MSG_LOG_SWITCH;
    item.data = reinterpret_cast<unsigned char*>(const_cast<char*>(one));
    item.dataLength = sizeof(one);
    ASSERT_TRUE(module.PostIPCMessage(item));
    EXPECT_TRUE(WaitUntil([] { return Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch") == L"1"; }));

    LogInfo info;
    info.eventId = "601000123";
    info.fields[0] = "from a module";
    auto payload = EncodeLogInfoPayload(info);
    item.messageId = MSG_PCMONITOR_LOG;
    item.data = payload.data();
    item.dataLength = static_cast<std::int32_t>(payload.size());
    ASSERT_TRUE(module.PostIPCMessage(item));
    const auto spool = root_ / "appdata" / "telemetry" / "events.jsonl";
    EXPECT_TRUE(WaitUntil([&] {
        std::ifstream in(spool);
        std::stringstream buffer;
        buffer << in.rdbuf();
        const std::string text = buffer.str();
        return text.find("601000123") != std::string::npos && text.find("from a module") != std::string::npos;
    }));
}

TEST_F(ServiceMsgClientTest, SecondInitializeReplacesTheChannel) {
    ServiceMsgClient handlers;
    ASSERT_TRUE(handlers.Initialize());
    IPCMessageClient* first = handlers.client;
    ASSERT_TRUE(handlers.Initialize());
    EXPECT_NE(handlers.client, nullptr);
    EXPECT_EQ(handlers.procTable->client, handlers.client);
    (void)first;  // released by the second call; the sanitizer build would see it otherwise
}

}  // namespace
