// Registry and setting requests handled directly: the record's size, command, root and type rules,
// and the values the two switches write.

#include "messageservice/registry_requests.h"

#include "message_service_fixture.h"
#include "messageservice/service_msg_client.h"
#include "runtime/common/strings.h"

using namespace qlb::messageservice;
using namespace qlb::messageservice::test;

namespace {

void PutUtf16(std::vector<unsigned char>& record, std::size_t offset, const std::wstring& text) {
    const std::u16string units = DE::WideToUtf16(text);
    for (std::size_t i = 0; i < units.size(); ++i) {
        record[offset + 2 * i] = static_cast<unsigned char>(units[i]);
        record[offset + 2 * i + 1] = static_cast<unsigned char>(units[i] >> 8);
    }
}

void PutU32(std::vector<unsigned char>& record, std::size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        record[offset + static_cast<std::size_t>(i)] = static_cast<unsigned char>(value >> (8 * i));
    }
}

// The 788-byte record: command, root (two halves), key, value name, data (text or number), type.
std::vector<unsigned char> RegEditRecord(std::uint32_t command, HKEY root, const std::wstring& key,
                                         const std::wstring& name, std::uint32_t type,
                                         const std::wstring& text, std::uint32_t number = 0) {
    std::vector<unsigned char> record(kRegEditRecordSize);
    PutU32(record, 0, command);
    PutU32(record, 4, static_cast<std::uint32_t>(root));
    PutU32(record, 8, static_cast<std::uint32_t>(root >> 32));
    PutUtf16(record, 12, key);
    PutUtf16(record, 268, name);
    if (type == REG_DWORD) {
        PutU32(record, 524, number);
    } else {
        PutUtf16(record, 524, text);
    }
    PutU32(record, 784, type);
    return record;
}

std::vector<unsigned char> Text(const std::string& text) {
    return std::vector<unsigned char>(text.c_str(), text.c_str() + text.size() + 1);
}

class RegistryRequestsTest : public MessageServiceMachine {
  protected:
    // Hands `bytes` to one of the handlers as the payload of a message.
    void Deliver(void (ServiceMsgClient::*handler)(TagIPCMessageItem&), std::vector<unsigned char> bytes) {
        TagIPCMessageItem item;
        item.data = bytes.empty() ? nullptr : bytes.data();
        item.dataLength = static_cast<std::int32_t>(bytes.size());
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

}  // namespace
