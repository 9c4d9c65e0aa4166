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

TagIPCMessageItem ItemOf(std::vector<unsigned char>& bytes, int messageId) {
    TagIPCMessageItem item;
    item.messageId = messageId;
    item.data = bytes.empty() ? nullptr : bytes.data();
    item.dataLength = static_cast<std::int32_t>(bytes.size());
    return item;
}

class RegistryRequestsTest : public MessageServiceMachine {
  protected:
    void Send(std::vector<unsigned char> bytes) {
        TagIPCMessageItem item = ItemOf(bytes, 0x30002);
        handlers_.OnRegEdit(item);
    }
    ServiceMsgClient handlers_;
};

TEST_F(RegistryRequestsTest, SetsAStringAndANumberWhereverTheRecordSays) {
    Send(RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Name", REG_SZ, L"v\u00e4lue"));
    Send(RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Count", REG_DWORD, L"",
                       0xFFFFFFFE));
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Name"), L"v\u00e4lue");
    int number = 0;
    ASSERT_TRUE(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Test", L"Count", number));
    EXPECT_EQ(number, -2);
}

TEST_F(RegistryRequestsTest, CreatesAKey) {
    Send(RegEditRecord(1, HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tessalink\\Made\\Below", L"", 0, L""));
    DE::Registry registry;
    registry.SetRootKey(HKEY_LOCAL_MACHINE);
    EXPECT_TRUE(registry.KeyExists(L"SOFTWARE\\Tessalink\\Made\\Below"));
}

TEST_F(RegistryRequestsTest, RecordOfTheWrongSizeIsDroppedWithoutALogLine) {
    auto record = RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N", REG_SZ, L"x");
    auto shorter = record;
    shorter.resize(kRegEditRecordSize - 1);
    auto longer = record;
    longer.push_back(0);
    Send(shorter);
    Send(longer);
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N"), L"<missing>");
    EXPECT_EQ(NewLog(), "");
}

TEST_F(RegistryRequestsTest, NullRootOrUnknownCommandIsACommandError) {
    Send(RegEditRecord(1, 0, L"SOFTWARE\\T", L"", 0, L""));
    EXPECT_TRUE(Logged("reg arg command error(ServiceMsgClient::OnRegEdit)"));
    mark_ = LogText().size();
    Send(RegEditRecord(3, HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N", REG_SZ, L"x"));
    EXPECT_TRUE(Logged("ERROR"));
    EXPECT_TRUE(Logged("reg arg command error"));
}

TEST_F(RegistryRequestsTest, UnknownValueTypeIsLoggedAndWritesNothing) {
    Send(RegEditRecord(2, HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N", 3, L"x"));
    EXPECT_TRUE(Logged("reg arg Value Type error: SOFTWARE\\T"));
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\T", L"N"), L"<missing>");
}

class SwitchRequestsTest : public MessageServiceMachine {
  protected:
    void LogSwitch(std::vector<unsigned char> bytes) {
        TagIPCMessageItem item = ItemOf(bytes, 0x30073);
        handlers_.OnRecvLogSwitch(item);
    }
    void CaptureSwitch(std::vector<unsigned char> bytes) {
        TagIPCMessageItem item = ItemOf(bytes, 0x30074);
        handlers_.OnRecvCaptureSwitch(item);
    }
    static std::vector<unsigned char> Text(const std::string& text) {
        return std::vector<unsigned char>(text.c_str(), text.c_str() + text.size() + 1);
    }
    ServiceMsgClient handlers_;
};

TEST_F(SwitchRequestsTest, LogSwitchIsOneOnlyForExactlyTheTextOne) {
    LogSwitch(Text("1"));
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch"), L"1");
    LogSwitch(Text("10"));
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch"), L"0");
    LogSwitch(Text("1"));
    LogSwitch(Text(""));
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch"), L"0");
}

TEST_F(SwitchRequestsTest, LogSwitchWithoutDataWritesNothing) {
    LogSwitch({});
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch"), L"<missing>");
}

TEST_F(SwitchRequestsTest, CaptureSwitchWritesTheUsersValues) {
    CaptureSwitch(Text("1"));
    EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"Capture"), L"1");
    EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"Protocol"), L"1");
    EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"ProtocolVer"), L"9");
    CaptureSwitch(Text("yes"));
    EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"Capture"), L"0");
}

TEST_F(SwitchRequestsTest, CaptureSwitchWithoutPayloadStillWritesAllThree) {
    CaptureSwitch({});
    EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"Capture"), L"0");
    EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"Protocol"), L"1");
    EXPECT_EQ(Value(HKEY_USERS, UserKey(kLoginGuideKey), L"ProtocolVer"), L"9");
}

}  // namespace
