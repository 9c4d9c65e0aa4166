#include "consent/agreement_sign.h"

#include "consent/account_util.h"
#include "consent/consent_common.h"
#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_types.h"
#include "runtime/registry/de_registry.h"

using namespace qlb::consent;

namespace {

bool KeyExistsForUser(const std::wstring& key) {
    DE::Registry registry;
    registry.SetRootKey(HKEY_USERS);
    return registry.KeyExists(CurrentUserSid() + key);
}

}  // namespace

bool AgreementSign::GetAgreeCache() {
    return AccountUtil::GetFlag(kAgreementServiceKey, kWndAgreeCacheValue) == "1";
}

void AgreementSign::SetAgreeCache(bool flag) {
    const std::wstring key = AccountUtil::CreateRegeditPath(kAgreementServiceKey);
    DE::Registry::SetValue(HKEY_USERS, key, kWndAgreeCacheValue, flag ? L"1" : L"0", KEY_ALL_ACCESS);
}

void AgreementSign::RecordeAgreeFlag() {
    DE::Registry::SetValue(HKEY_USERS, CurrentUserSid() + kAgreementServiceKey, kAgreeFlagValue, L"1",
                           KEY_ALL_ACCESS);
}

void AgreementSign::DeleteAgreeFlag() {
    // The existence test runs on an object whose root was never set, so it fails and the value stays;
    // the other modules rely on the flag as it has always behaved.
    DE::Registry registry;
    const std::wstring key = CurrentUserSid() + kAgreementServiceKey;
    if (registry.KeyExists(key)) {
        if (registry.OpenKey(HKEY_USERS, key, false)) {
            registry.DeleteValue(kAgreeFlagValue);
        }
    }
}

int AgreementSign::JudgeBranchId(const std::wstring& path) {
    std::string recorded;
    std::string current;
    if (qlb::EqualsNoCase(path, kRecordWithLoginKey) || qlb::EqualsNoCase(path, kRecordWithLoginCacheKey)) {
        recorded = AccountUtil::GetFlag(path, kBranchIdValue);
        current = AccountUtil::GetFlag(kWithLoginLocalVersionKey, kBranchIdValue);
    } else {
        recorded = AccountUtil::GetFlag(std::wstring(kRecordWithoutLoginKey) + kPrivacyStatementSubkey,
                                        kIntactBranchIdValue);
        current = AccountUtil::GetFlag(kWithoutLoginLocalVersionKey, kBranchIdValue);
    }
    return recorded == current ? kJudgeAgreed : kJudgeOutdated;
}

int AgreementSign::JudgeAgreementSign() {
    if (!AccountUtil::IsSupportQds()) {
        return kJudgeNotSupported;
    }
    if (GetAgreeCache()) {
        return kJudgeAgreed;
    }
    if (IsUserLoggedIn()) {
        return JudgeAgreementSignLogin();
    }
    return JudgeAgreementSignWithoutLogin();
}

int AgreementSign::JudgeAgreementSignLogin() {
    // Before the server has spoken, the without-login local versions are the ones in force even for a
    // logged-in user: the default-version refresh fills that key in every state.
    const wchar_t* inForceKey = IsServerUpdated() ? kWithLoginQdsVersionKey : kWithoutLoginLocalVersionKey;
    const std::string version133 = AccountUtil::GetFlag(inForceKey, kUserAgreementValue);
    const std::string version10021 = AccountUtil::GetFlag(inForceKey, kPrivacyStatementValue);

    const int record = JudgeWhenLogin(kRecordWithLoginKey, version133, version10021);
    if (record == kJudgeAgreed) {
        return record;
    }
    const int cache = JudgeWhenLogin(kRecordWithLoginCacheKey, version133, version10021);
    if (cache != kJudgeNoRecord) {
        return cache;
    }
    return record;
}

int AgreementSign::JudgeWhenLogin(const std::wstring& key, const std::string& version133,
                                  const std::string& version10021) {
    if (!KeyExistsForUser(key)) {
        return kJudgeNoRecord;
    }
    const std::string stored133 = AccountUtil::GetFlag(key, kUserAgreementValue);
    const std::string stored10021 = AccountUtil::GetFlag(key, kPrivacyStatementValue);
    if (stored133 < version133) {
        return kJudgeOutdated;
    }
    if (stored10021 < version10021) {
        return kJudgeOutdated;
    }
    return kJudgeAgreed;
}

int AgreementSign::JudgeAgreementSignWithoutLogin() {
    if (!KeyExistsForUser(kRecordWithoutLoginKey)) {
        return kJudgeNoRecord;
    }
    const std::string agreed133 = AccountUtil::GetFlag(
        std::wstring(kRecordWithoutLoginKey) + kUserAgreementSubkey, kIntactVersionValue);
    const std::string agreed10021 = AccountUtil::GetFlag(
        std::wstring(kRecordWithoutLoginKey) + kPrivacyStatementSubkey, kIntactVersionValue);

    const wchar_t* inForceKey = IsServerUpdated() ? kWithoutLoginQdsVersionKey : kWithoutLoginLocalVersionKey;
    const std::string version133 = AccountUtil::GetFlag(inForceKey, kUserAgreementValue);
    const std::string version10021 = AccountUtil::GetFlag(inForceKey, kPrivacyStatementValue);
    if (agreed133 < version133) {
        return kJudgeOutdated;
    }
    if (agreed10021 < version10021) {
        return kJudgeOutdated;
    }
    return kJudgeAgreed;
}
