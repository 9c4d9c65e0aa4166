#include "consent/agreement_service.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include <nlohmann/json.hpp>

#include "consent/account_util.h"
#include "consent/consent_common.h"
#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "runtime/common/app_paths.h"
#include "runtime/common/logging.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_types.h"
#include "runtime/http/http_util.h"
#include "runtime/http/json_sdk.h"
#include "runtime/http/system_info.h"
#include "runtime/http/url_loader.h"
#include "runtime/registry/de_registry.h"

using namespace qlb::consent;
using nlohmann::json;

namespace {

// The HTTP layer's two bounds, in seconds: connection, then the whole exchange.
constexpr int kConnectTimeoutSeconds = 5;
constexpr int kTotalTimeoutSeconds = 12;

constexpr char kFormContentType[] = "Content-Type:application/x-www-form-urlencoded";
constexpr char kJsonContentType[] = "Content-Type:application/json";
constexpr char kCharsetHeader[] = "Charset:UTF-8";

// The two objects of an agreement array, user agreement first, differing only in "agrType".
json AgreementArray(const json& common) {
    json array = json::array();
    for (const int agrType : {kAgrTypeUserAgreement, kAgrTypePrivacyStatement}) {
        json item = common;
        item["agrType"] = agrType;
        array.push_back(std::move(item));
    }
    return array;
}

// The branch id of sign and query requests: the with-login local one once the server has spoken.
int RecordBranchId() {
    if (!IsServerUpdated()) {
        return 0;
    }
    return TextToInt(AccountUtil::GetFlag(kWithLoginLocalVersionKey, kBranchIdValue));
}

std::wstring Wide(const std::string& text) {
    return DE::ANSIToUnicode(text);
}

bool SetUserValue(const std::wstring& fullKey, const std::wstring& name, const std::string& value) {
    return DE::Registry::SetValue(HKEY_USERS, fullKey, name, Wide(value), KEY_ALL_ACCESS);
}

// The key of the versions in force that the record and cache operations copy or compare.
const wchar_t* InForceVersionKey() {
    return IsServerUpdated() ? kWithLoginQdsVersionKey : kWithoutLoginLocalVersionKey;
}

}  // namespace

AgreementService* AgreementService::GetInstance() {
    static AgreementService instance;
    return &instance;
}

void AgreementService::DestroyInstance() {}

std::string AgreementService::GetServerHost(const std::string& key) {
    std::string url;
    if (!UrlLoader::GetInstance().GetServiceUrl(kAgreementServiceName, url, key) || url.empty()) {
        QLOG_WARN("can not get serverHost from rlx");
        return {};
    }
    return url;
}

std::string AgreementService::GetLanguage() {
    std::string language = SystemInfo::GetCurrentUserLanguage();
    std::transform(language.begin(), language.end(), language.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return language;
}

std::string AgreementService::GetReqUrl(const std::string& host) {
    return host + kVersionRequestPath;
}

std::string AgreementService::GetReqJsonData(int branchId, const std::string& country) {
    json common;
    common["branchId"] = branchId;
    common["country"] = country;
    json body;
    body["agrInfo"] = AgreementArray(common);
    return body.dump();
}

std::string AgreementService::GetSignRecordJsonData() {
    json common;
    common["branchId"] = RecordBranchId();
    common["country"] = RequestCountry();
    json body;
    body["agrInfo"] = AgreementArray(common);
    body["obtainVersion"] = true;
    return body.dump();
}

std::string AgreementService::AgreementSignJsonData() {
    json common;
    common["branchId"] = RecordBranchId();
    common["country"] = RequestCountry();
    common["isAgree"] = true;
    common["language"] = GetLanguage();
    json body;
    body["signInfo"] = AgreementArray(common);
    return body.dump();
}

int AgreementService::SendRequest(const std::string& url, const std::string& body, const char* contentType,
                                  std::string& reply) {
    const std::vector<std::string> headers = {contentType, kCharsetHeader};
    std::string replyHeaders;
    int code = 0;
    // One attempt: the counter starts at 0 and is never negative, so a failure leaves at once.
    int count = 0;
    for (;;) {
        code = HttpUtil::RequestHttpsPostDo(url, body, headers, reply, replyHeaders, kConnectTimeoutSeconds,
                                            kTotalTimeoutSeconds);
        if (code == 0) {
            break;
        }
        QLOG_WARN("return code: " << code << " count:" << count);
        if (count++ >= 0) {
            break;
        }
    }
    return code;
}

int AgreementService::AgreementSign(const std::string& accessToken) {
    const std::string host = GetServerHost(kRlxKeyRoot);
    if (host.empty()) {
        return kResultNoServerHost;
    }
    const std::string body = "nsp_svc=as.user.sign&access_token=" + LogUtil::UrlEncode(accessToken) +
                             "&request=" + LogUtil::UrlEncode(AgreementSignJsonData());
    std::string reply;
    const int code = SendRequest(host, body, kFormContentType, reply);
    if (!reply.empty()) {
        return AnalyzeResponseErrorCode(reply);
    }
    return code;
}

int AgreementService::GetSignRecord(const std::string& accessToken) {
    const std::string host = GetServerHost(kRlxKeyRoot);
    if (host.empty()) {
        return kResultNoServerHost;
    }
    const std::string body = "nsp_svc=as.user.query&access_token=" + LogUtil::UrlEncode(accessToken) +
                             "&request=" + LogUtil::UrlEncode(GetSignRecordJsonData());
    std::string reply;
    SendRequest(host, body, kFormContentType, reply);
    if (reply.empty()) {
        return kResultBadReply;
    }
    return AnalyzeRecordResponse(reply);
}

int AgreementService::GetLatestVersion(const std::string& branchId, std::string& version) {
    const std::string host = GetServerHost(kRlxKeyCommonApi);
    if (host.empty()) {
        return kResultNoServerHost;
    }
    const std::string body = GetReqJsonData(TextToInt(branchId), RequestCountry());
    std::string reply;
    SendRequest(GetReqUrl(host), body, kJsonContentType, reply);
    if (reply.empty()) {
        return kResultBadReply;
    }
    const int code = AnalyzeResponseErrorCode(reply);
    if (code == kResultSuccess) {
        version = AnalyzeVersionResponse(reply);
    }
    return code;
}

int AgreementService::AnalyzeResponseErrorCode(const std::string& reply) {
    if (reply.empty() || !json::accept(reply)) {
        QLOG_ERROR("parse interval info to json failed.\n");
        return kResultBadReply;
    }
    const json document = json::parse(reply, nullptr, false);
    if (!document.is_object()) {
        return kResultBadReply;
    }
    const auto it = document.find("errorCode");
    if (it == document.end()) {
        return kResultBadReply;
    }
    if (it->is_number_unsigned()) {
        return static_cast<int>(static_cast<std::uint32_t>(it->get<std::uint64_t>()));
    }
    if (it->is_number_integer()) {
        return static_cast<int>(static_cast<std::uint32_t>(it->get<std::int64_t>()));
    }
    return kResultBadReply;
}

std::string AgreementService::AnalyzeVersionResponse(const std::string& reply) {
    const json document = json::parse(reply, nullptr, false);
    int size = 0;
    if (!JsonSdk::GetJsonArraySizeByKey(document, "versionInfo", size) || size == 0) {
        QLOG_ERROR("components not exist");
        return {};
    }
    int latestVersion = 0;
    for (int index = 0; index < size; ++index) {
        int agrType = 0;
        if (!JsonSdk::GetJsonArrayIntValueByKey(document, "versionInfo", "agrType", agrType, index) ||
            !JsonSdk::GetJsonArrayIntValueByKey(document, "versionInfo", "latestVersion", latestVersion,
                                                index)) {
            QLOG_ERROR("get compoments value fail");
            return {};
        }
    }
    // The last element decides; in the order the request asks, that is the privacy statement.
    return std::to_string(latestVersion);
}

int AgreementService::AnalyzeRecordResponse(const std::string& reply) {
    const int code = AnalyzeResponseErrorCode(reply);
    if (code != kResultSuccess) {
        return code;
    }
    const json document = json::parse(reply, nullptr, false);
    int size = 0;
    if (!JsonSdk::GetJsonArraySizeByKey(document, "signInfo", size)) {
        QLOG_ERROR("components not exist");
        return kResultBadReply;
    }
    if (size == 0) {
        return kResultSuccess;
    }
    const std::string country = qlb::ToLowerAscii(RequestCountry());
    for (int index = 0; index < size; ++index) {
        int agrType = 0;
        int version = 0;
        int branchId = 0;
        std::string itemCountry;
        if (!JsonSdk::GetJsonArrayIntValueByKey(document, "signInfo", "agrType", agrType, index) ||
            !JsonSdk::GetJsonArrayIntValueByKey(document, "signInfo", "version", version, index) ||
            !JsonSdk::GetJsonArrayIntValueByKey(document, "signInfo", "branchId", branchId, index) ||
            !JsonSdk::GetJsonArrayStringValueByKey(document, "signInfo", "country", itemCountry, index)) {
            QLOG_ERROR("get compoments value fail");
            return kResultBadReply;
        }
        // The server's country is taken as it stands: a record for another market is passed over.
        const bool knownType = agrType == kAgrTypeUserAgreement || agrType == kAgrTypePrivacyStatement;
        if (knownType && country == itemCountry) {
            if (!SetRecordRegValue(agrType, version, branchId)) {
                return kResultBadReply;
            }
        }
    }
    return kResultSuccess;
}

bool AgreementService::SetRecordRegValue(int agrType, int version, int branchId) {
    if (AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue) == "0") {
        QLOG_WARN("account is not login, do not set record reg value");
        return true;
    }
    const std::string agrTypeText = std::to_string(agrType);
    std::string versionText = std::to_string(version);
    std::string branchText = std::to_string(branchId);

    if (!IsServerUpdated()) {
        // Before the server has spoken, an agreement made without an account may be newer than what
        // the server holds; it carries over into the login record.
        std::wstring intactKey = kRecordWithoutLoginKey;
        if (agrType == kAgrTypeUserAgreement) {
            intactKey += kUserAgreementSubkey;
        } else if (agrType == kAgrTypePrivacyStatement) {
            intactKey += kPrivacyStatementSubkey;
        }
        const std::string storedVersion = AccountUtil::GetFlag(intactKey, kIntactVersionValue);
        const std::string storedBranch = AccountUtil::GetFlag(intactKey, kIntactBranchIdValue);
        if (versionText < storedVersion) {
            versionText = storedVersion;
            branchText = storedBranch;
        }
    }

    const std::wstring recordKey = AccountUtil::CreateRegeditPath(kRecordWithLoginKey);
    const bool versionWritten = SetUserValue(recordKey, Wide(agrTypeText), versionText);
    const bool branchWritten = SetUserValue(recordKey, kBranchIdValue, branchText);
    return versionWritten && branchWritten;
}

void AgreementService::SetIntactRecordWithoutLogin(const std::wstring& agrTypeName,
                                                   const std::wstring& subkey) {
    const wchar_t* sourceKey = IsServerUpdated() ? kWithoutLoginQdsVersionKey : kWithoutLoginLocalVersionKey;
    const std::string version = AccountUtil::GetFlag(sourceKey, agrTypeName);
    const std::wstring target = CurrentUserSid() + kRecordWithoutLoginKey + subkey;

    SetUserValue(target, kIntactAgrTypeValue, DE::UnicodeToANSI(agrTypeName));
    SetUserValue(target, kIntactCountryValue, RequestCountry());
    SetUserValue(target, kIntactVersionValue, version);
    SetUserValue(target, kIntactSignTimeValue, CurrentTimeWithMilliseconds());
    SetUserValue(target, kIntactIsAgreeValue, "1");
    SetUserValue(target, kIntactBranchIdValue,
                 AccountUtil::GetFlag(kWithoutLoginLocalVersionKey, kBranchIdValue));
}

void AgreementService::SetRecordWithoutLogin() {
    AccountUtil::CreateRegeditPath(std::wstring(kRecordWithoutLoginKey) + kUserAgreementSubkey);
    SetIntactRecordWithoutLogin(kUserAgreementValue, kUserAgreementSubkey);
    AccountUtil::CreateRegeditPath(std::wstring(kRecordWithoutLoginKey) + kPrivacyStatementSubkey);
    SetIntactRecordWithoutLogin(kPrivacyStatementValue, kPrivacyStatementSubkey);
}

void AgreementService::SaveCache() {
    const wchar_t* versionKey = InForceVersionKey();
    const std::string version133 = AccountUtil::GetFlag(versionKey, kUserAgreementValue);
    const std::string version10021 = AccountUtil::GetFlag(versionKey, kPrivacyStatementValue);
    const std::string branchId = AccountUtil::GetFlag(kWithLoginLocalVersionKey, kBranchIdValue);

    const std::wstring cacheKey = CurrentUserSid() + kRecordWithLoginCacheServiceKey;
    SetUserValue(cacheKey, kUserAgreementValue, version133);
    SetUserValue(cacheKey, kPrivacyStatementValue, version10021);
    SetUserValue(cacheKey, kBranchIdValue, branchId);
}

bool AgreementService::IfHaveCache() {
    DE::Registry registry;
    registry.SetRootKey(HKEY_USERS);
    return registry.KeyExists(CurrentUserSid() + kRecordWithLoginCacheServiceKey);
}

bool AgreementService::NeedUpdateExistCache() {
    if (!IfHaveCache()) {
        return false;
    }
    const wchar_t* versionKey = InForceVersionKey();
    const std::string cached133 = AccountUtil::GetFlag(kRecordWithLoginCacheServiceKey, kUserAgreementValue);
    const std::string cached10021 =
        AccountUtil::GetFlag(kRecordWithLoginCacheServiceKey, kPrivacyStatementValue);
    return cached133 < AccountUtil::GetFlag(versionKey, kUserAgreementValue) ||
           cached10021 < AccountUtil::GetFlag(versionKey, kPrivacyStatementValue);
}

void AgreementService::DeleteCache() {
    DE::Registry registry;
    registry.SetRootKey(HKEY_USERS);
    registry.DeleteKey(CurrentUserSid() + kRecordWithLoginCacheServiceKey);
}
