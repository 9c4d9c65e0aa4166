// The service's requests on a whole machine in a temporary directory (registry store, app data, log
// and run directories, one console session held by the current user): the registry edit record's
// size, command, root and type rules, the values the two switches write, and requests sent by another
// module through the hub. The process log is written through the shipped configuration.

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "messageservice/ipc_data_io.h"
#include "messageservice/ipc_server_proc.h"
#include "messageservice/registry_requests.h"
#include "messageservice/service_msg_client.h"
#include "platform/sessions/session_source.h"
#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"
#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/ipc_message_ids.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/ipc_module_ids.h"
#include "runtime/ipc/ipc_test_support.h"
#include "runtime/registry/de_registry.h"
#include "runtime/registry/registry_store.h"
#include "runtime/telemetry/event_data_report.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/temp_dir.h"

using namespace qlb::messageservice;
using qlb::MachineProfile;
using qlb::ipc::PutU32;
using qlb::ipc::test::MakeItem;
using qlb::testing::Eventually;

namespace {

class MessageServiceMachine : public ::testing::Test {
  protected:
    void SetUp() override {
        MachineProfile profile;
        profile.registry = root_ / "registry.db";
        profile.appData = root_ / "appdata/";
        profile.logDir = root_ / "log/";
        profile.runDir = root_ / "run/";
        const passwd* user = ::getpwuid(::getuid());
        ASSERT_NE(user, nullptr);
        profile.sessions[1] = user->pw_name;
        profile.activeSession = 1;
        profile.ipcAllow = qlb::IpcAllow{{user->pw_name}, {}};
        MachineProfile::SetCurrent(profile);
        auto store = qlb::registry::RegistryStore::Open(profile.registry);
        ASSERT_TRUE(store.ok());
        qlb::registry::RegistryStore::SetDefault(store.value);
        qlb::platform::SetCurrentSessionSource(
            std::make_unique<qlb::platform::EmbeddedSessionSource>(profile));
        std::filesystem::create_directories(profile.logDir);
        qlb::logging::InitLogger("MessageServiceTest",
                                 std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                                 profile.logDir.string());
        MarkLog();
    }
    void TearDown() override {
        qlb::platform::SetCurrentSessionSource(nullptr);
        qlb::registry::RegistryStore::SetDefault(nullptr);
        MachineProfile::SetCurrent(MachineProfile{});
    }

    // From now on only lines written later count.
    void MarkLog() { log_ = std::make_unique<qlb::testing::FileTail>(root_ / "log/MessageServiceTest.log"); }

    static std::wstring Value(HKEY root, const std::wstring& key, const std::wstring& name) {
        std::wstring value;
        return DE::Registry::GetValue(root, key, name, value) ? value : L"<missing>";
    }
    static std::wstring UserKey(const std::wstring& below) {
        return L"S-1-22-1-" + std::to_wstring(::getuid()) + L"\\" + below;
    }

    qlb::testing::TempDir root_;
    std::unique_ptr<qlb::testing::FileTail> log_;
};

void PutUtf16(std::vector<unsigned char>& record, std::size_t offset, const std::wstring& text) {
    const std::u16string units = DE::WideToUtf16(text);
    for (std::size_t i = 0; i < units.size(); ++i) {
        record[offset + 2 * i] = static_cast<unsigned char>(units[i]);
        record[offset + 2 * i + 1] = static_cast<unsigned char>(units[i] >> 8);
    }
}

// The 788-byte record: command, root (two halves), key, value name, data (text or number), type.
std::vector<unsigned char> RegEditRecord(std::uint32_t command, HKEY root, const std::wstring& key,
                                         const std::wstring& name, std::uint32_t type,
                                         const std::wstring& text, std::uint32_t number = 0) {
    std::vector<unsigned char> record(kRegEditRecordSize);
    PutU32(record.data(), command);
    PutU32(record.data() + 4, static_cast<std::uint32_t>(root));
    PutU32(record.data() + 8, static_cast<std::uint32_t>(root >> 32));
    PutUtf16(record, 12, key);
    PutUtf16(record, 268, name);
    if (type == REG_DWORD) {
        PutU32(record.data() + 524, number);
    } else {
        PutUtf16(record, 524, text);
    }
    PutU32(record.data() + 784, type);
    return record;
}

std::vector<unsigned char> Text(const std::string& text) {
    return std::vector<unsigned char>(text.c_str(), text.c_str() + text.size() + 1);
}

class RegistryRequestsTest : public MessageServiceMachine {
  protected:
    // Hands `bytes` to one of the handlers as the payload of a message.
    void Deliver(void (ServiceMsgClient::*handler)(TagIPCMessageItem&), std::vector<unsigned char> bytes) {
        auto item = MakeItem(0, 0, 0, bytes.empty() ? nullptr : bytes.data(), static_cast<int>(bytes.size()));
        (handlers_.*handler)(item);
    }
    void RegEdit(std::vector<unsigned char> bytes) {
        Deliver(&ServiceMsgClient::OnRegEdit, std::move(bytes));
    }
    ServiceMsgClient handlers_;
};

TEST_F(RegistryRequestsTest, SetsAStringAndANumberAndCreatesAKeyWhereverTheRecordSays) {
    RegEdit(
        RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Name", REG_SZ, L"v\u00e4lue"));
    RegEdit(RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Count", REG_DWORD, L"",
                          0xFFFFFFFE));
    RegEdit(RegEditRecord(1, HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Made\\Below", L"", 0, L""));
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Name"), L"v\u00e4lue");
    int number = 0;
    ASSERT_TRUE(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Count", number));
    EXPECT_EQ(number, -2);
    DE::Registry registry;
    registry.SetRootKey(HKEY_LOCAL_MACHINE);
    EXPECT_TRUE(registry.KeyExists(L"SOFTWARE\\Tessalink\\Made\\Below"));
}

TEST_F(RegistryRequestsTest, RecordOfTheWrongSizeIsDroppedWithoutALogLine) {
    auto record = RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N", REG_SZ, L"x");
    auto shorter = record;
    shorter.resize(kRegEditRecordSize - 1);
    record.push_back(0);
    RegEdit(shorter);
    RegEdit(record);
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N"), L"<missing>");
    EXPECT_EQ(log_->Text(), "");
}

TEST_F(RegistryRequestsTest, BadRootCommandOrTypeIsLoggedAndWritesNothing) {
    const struct {
        std::vector<unsigned char> record;
        std::string line;
    } cases[] = {
        {RegEditRecord(1, 0, L"SOFTWARE\\T", L"", 0, L""),
         "reg arg command error(ServiceMsgClient::OnRegEdit)"},
        {RegEditRecord(3, HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N", REG_SZ, L"x"), "reg arg command error"},
        {RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N", 3, L"x"),
         "reg arg Value Type error: SOFTWARE\\T"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        MarkLog();
        RegEdit(c.record);
        EXPECT_TRUE(log_->Has("ERROR"));
        EXPECT_TRUE(log_->Has(c.line));
        EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N"), L"<missing>");
    }
}

TEST_F(RegistryRequestsTest, LogSwitchIsOneOnlyForExactlyTheTextOne) {
    Deliver(&ServiceMsgClient::OnRecvLogSwitch, {});
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch"), L"<missing>") << "no data, no write";
    const std::pair<const char*, const wchar_t*> cases[] = {
        {"1", L"1"}, {"10", L"0"}, {"1", L"1"}, {"", L"0"}};
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        Deliver(&ServiceMsgClient::OnRecvLogSwitch, Text(text));
        EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch"), value);
    }
}

TEST_F(RegistryRequestsTest, CaptureSwitchWritesTheUsersThreeValuesEvenWithoutPayload) {
    const std::pair<std::vector<unsigned char>, const wchar_t*> cases[] = {
        {{}, L"0"}, {Text("1"), L"1"}, {Text("yes"), L"0"}};
    for (const auto& [payload, capture] : cases) {
        SCOPED_TRACE(payload.size());
        Deliver(&ServiceMsgClient::OnRecvCaptureSwitch, payload);
        EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"Capture"), capture);
        EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"Protocol"), L"1");
        EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"ProtocolVer"), L"9");
    }
}

TEST_F(MessageServiceMachine, RequestsFromAnotherModuleTakeEffectThroughTheHub) {
    // The service builds its client before the hub starts.
    ServiceMsgClient handlers;
    ASSERT_TRUE(handlers.Initialize());
    IPCMessageServer hub;
    ASSERT_TRUE(hub.Start());
    IPCMessageClient module(0x500000, hub.SocketPath());
    ASSERT_TRUE(module.WaitJoined(std::chrono::seconds(20)));
    ASSERT_TRUE(handlers.client->WaitJoined(std::chrono::seconds(20)));

    const char one[] = "1";
    ASSERT_TRUE(
        module.PostIPCMessage(MakeItem(MODULE_MAINSERVICE_ID, 0x500000, MSG_LOG_SWITCH, one, sizeof(one))));
    EXPECT_TRUE(Eventually([] { return Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch") == L"1"; }));

    // The one typed message goes through the table of typed handlers.
    LogInfo info;
    info.eventId = "601000123";
    info.fields[0] = "from a module";
    const auto payload = EncodeLogInfoPayload(info);
    ASSERT_TRUE(module.PostIPCMessage(MakeItem(MODULE_MAINSERVICE_ID, 0x500000, MSG_PCMONITOR_LOG,
                                               payload.data(), static_cast<int>(payload.size()))));
    EXPECT_TRUE(Eventually([&] {
        const std::string text = qlb::testing::ReadFile(root_ / "appdata/telemetry/events.jsonl");
        return text.find("601000123") != std::string::npos && text.find("from a module") != std::string::npos;
    }));

    // A second Initialize replaces the channel and leaves nothing behind.
    ASSERT_TRUE(handlers.Initialize());
    EXPECT_EQ(handlers.procTable->client, handlers.client);
}

}  // namespace
