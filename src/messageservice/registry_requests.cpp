// Registry and setting requests: user-mode modules can't write the machine-wide registry, so the
// service writes for them. None of these answers.

#include "messageservice/registry_requests.h"

#include <cstring>
#include <string>

#include "messageservice/service_msg_client.h"
#include "platform/sessions/session_source.h"
#include "runtime/common/logging.h"
#include "runtime/common/program_dir.h"
#include "runtime/common/strings.h"
#include "runtime/process/mon_process.h"
#include "runtime/registry/de_registry.h"

namespace qlb::messageservice {

namespace {

std::uint32_t ReadU32(const unsigned char* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | (static_cast<std::uint32_t>(bytes[1]) << 8) |
           (static_cast<std::uint32_t>(bytes[2]) << 16) | (static_cast<std::uint32_t>(bytes[3]) << 24);
}

// UTF-16 text from `offset` up to its NUL. The record's size is fixed and checked, and the reading
// stops at the record's end should the NUL be missing from the last field.
std::wstring ReadUtf16Field(const unsigned char* record, std::size_t offset) {
    std::u16string text;
    for (std::size_t at = offset; at + 1 < kRegEditRecordSize; at += 2) {
        const auto unit = static_cast<char16_t>(record[at] | (record[at + 1] << 8));
        if (unit == 0) {
            break;
        }
        text.push_back(unit);
    }
    return DE::Utf16ToWide(text);
}

// Text payloads end in a NUL; one that doesn't is read to its length.
std::string PayloadText(const TagIPCMessageItem& item) {
    if (item.data == nullptr || item.dataLength <= 0) {
        return {};
    }
    const auto* begin = reinterpret_cast<const char*>(item.data);
    const void* nul = std::memchr(begin, 0, static_cast<std::size_t>(item.dataLength));
    const auto length = nul ? static_cast<std::size_t>(static_cast<const char*>(nul) - begin)
                            : static_cast<std::size_t>(item.dataLength);
    return std::string(begin, length);
}

}  // namespace

RegEditRecord DecodeRegEditRecord(const unsigned char* record) {
    RegEditRecord decoded;
    decoded.command = ReadU32(record);
    decoded.rootKey = static_cast<std::uint64_t>(ReadU32(record + 4)) |
                      (static_cast<std::uint64_t>(ReadU32(record + 8)) << 32);
    decoded.keyPath = ReadUtf16Field(record, 12);
    decoded.valueName = ReadUtf16Field(record, 268);
    decoded.valueString = ReadUtf16Field(record, 524);
    decoded.valueNumber = static_cast<std::int32_t>(ReadU32(record + 524));
    decoded.valueType = ReadU32(record + 784);
    return decoded;
}

}  // namespace qlb::messageservice

using namespace qlb::messageservice;

void ServiceMsgClient::OnRegEdit(TagIPCMessageItem& item) {
    if (item.data == nullptr || item.dataLength != static_cast<std::int32_t>(kRegEditRecordSize)) {
        return;
    }
    const RegEditRecord record = DecodeRegEditRecord(item.data);
    const auto root = static_cast<HKEY>(record.rootKey);
    if (record.command == kRegEditCreateKey && record.rootKey != 0) {
        DE::Registry registry;
        registry.SetRootKey(root);
        if (!registry.CreateKey(record.keyPath)) {
            QLOG_ERROR("Create Key failed: " << DE::UnicodeToANSI(record.keyPath));
        }
        return;
    }
    if (record.command == kRegEditSetValue && record.rootKey != 0) {
        bool written = false;
        if (record.valueType == REG_DWORD) {
            written = DE::Registry::SetValue(root, record.keyPath, record.valueName, record.valueNumber,
                                             KEY_ALL_ACCESS);
        } else if (record.valueType == REG_SZ) {
            written = DE::Registry::SetValue(root, record.keyPath, record.valueName, record.valueString,
                                             KEY_ALL_ACCESS);
        } else {
            QLOG_ERROR("reg arg Value Type error: " << DE::UnicodeToANSI(record.keyPath));
            return;
        }
        if (!written) {
            QLOG_ERROR("Registry Set Value failed");
        }
        return;
    }
    QLOG_ERROR("reg arg command error");
}

void ServiceMsgClient::OnRecvLogSwitch(TagIPCMessageItem& item) {
    if (item.data == nullptr) {
        return;
    }
    const std::wstring value = PayloadText(item) == "1" ? L"1" : L"0";
    DE::Registry::SetValue(HKEY_LOCAL_MACHINE, kLoginGuideKey, L"LogSwitch", value, KEY_ALL_ACCESS);
}

void ServiceMsgClient::OnRecvCaptureSwitch(TagIPCMessageItem& item) {
    // "Capture" passes through "0" every time, even on the way to "1".
    const std::wstring key = ZVPROCESS::GetCurrentUserSidstr() + L"\\" + kLoginGuideKey;
    DE::Registry::SetValue(HKEY_USERS, key, L"Capture", std::wstring(L"0"), KEY_ALL_ACCESS);
    if (item.dataLength != 0 && item.data != nullptr && PayloadText(item) == "1") {
        DE::Registry::SetValue(HKEY_USERS, key, L"Capture", std::wstring(L"1"), KEY_ALL_ACCESS);
    }
    DE::Registry::SetValue(HKEY_USERS, key, L"Protocol", std::wstring(L"1"), KEY_ALL_ACCESS);
    DE::Registry::SetValue(HKEY_USERS, key, L"ProtocolVer", std::wstring(L"9"), KEY_ALL_ACCESS);
}

int ServiceMsgClient::BootMainServiceAlive() {
    const std::wstring selfPath = qlb::SelfPath().wstring();
    if (selfPath.empty()) {
        return 0;
    }
    void* module = nullptr;
    MonProcess* instance = nullptr;
    const bool loaded = LoadMonProcess(module, instance);
    if (loaded) {
        const long result = instance->BootAlive(selfPath.c_str());
        if (result != 0) {
            QLOG_ERROR("boot mainservice alive failed. result:" << result);
        }
    }
    ReleaseMonProcess(module, instance);
    return loaded ? 1 : 0;
}
