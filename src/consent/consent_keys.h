#pragma once
// Registry keys, value names, result codes and constants of the consent records. Key paths are
// relative to the current user's subkey of HKEY_USERS; the store compares names without regard to
// case, so "\Software" and "\SOFTWARE" reach the same key.

namespace qlb::consent {

// Keys.
inline constexpr wchar_t kAgreementServiceKey[] = L"\\Software\\Tessalink\\AgreementService";
inline constexpr wchar_t kWithLoginLocalVersionKey[] =
    L"\\Software\\Tessalink\\AgreementService\\WithAccountLogin\\LocalVersion";
inline constexpr wchar_t kWithLoginQdsVersionKey[] =
    L"\\Software\\Tessalink\\AgreementService\\WithAccountLogin\\QDSVersion";
inline constexpr wchar_t kWithoutLoginLocalVersionKey[] =
    L"\\Software\\Tessalink\\AgreementService\\WithoutAccountLogin\\LocalVersion";
inline constexpr wchar_t kWithoutLoginQdsVersionKey[] =
    L"\\Software\\Tessalink\\AgreementService\\WithoutAccountLogin\\QDSVersion";
inline constexpr wchar_t kRecordWithLoginKey[] =
    L"\\Software\\Tessalink\\AgreementService\\ZVRecordWithLogin";
// The deciding side spells the cache with "Software", the service side with "SOFTWARE": one key.
inline constexpr wchar_t kRecordWithLoginCacheKey[] =
    L"\\Software\\Tessalink\\AgreementService\\ZVRecordWithLoginCache";
inline constexpr wchar_t kRecordWithLoginCacheServiceKey[] =
    L"\\SOFTWARE\\Tessalink\\AgreementService\\ZVRecordWithLoginCache";
inline constexpr wchar_t kRecordWithoutLoginKey[] =
    L"\\SOFTWARE\\Tessalink\\AgreementService\\ZVRecordWithoutLogin";
inline constexpr wchar_t kUserAgreementSubkey[] = L"\\UserAgreement";
inline constexpr wchar_t kPrivacyStatementSubkey[] = L"\\PrivacyStatement";
// Declared beside the login flag for the user interface side; nothing here reads them.
inline constexpr wchar_t kZvidKey[] = L"\\Software\\Zorvane\\ZVID";
inline constexpr wchar_t kAutoLoginValue[] = L"AutoLogin";

// Values.
inline constexpr wchar_t kUserLoginFlagValue[] = L"UserLoginFlag";
inline constexpr wchar_t kServerUpdatedFlagValue[] = L"ServerUpdatedFlag";
inline constexpr wchar_t kWndAgreeCacheValue[] = L"WndAgreeCache";
inline constexpr wchar_t kAgreeFlagValue[] = L"AgreeFlag";
inline constexpr wchar_t kBranchIdValue[] = L"BranchId";
inline constexpr wchar_t kServerCountryValue[] = L"ServerCountry";
inline constexpr wchar_t kUserAgreementValue[] = L"133";
inline constexpr wchar_t kPrivacyStatementValue[] = L"10021";
inline constexpr wchar_t kIntactAgrTypeValue[] = L"AgrType";
inline constexpr wchar_t kIntactCountryValue[] = L"Country";
inline constexpr wchar_t kIntactVersionValue[] = L"Version";
inline constexpr wchar_t kIntactSignTimeValue[] = L"SignTime";
inline constexpr wchar_t kIntactIsAgreeValue[] = L"IsAgree";
inline constexpr wchar_t kIntactBranchIdValue[] = L"BranchId";

// Agreement types, integers on the wire.
inline constexpr int kAgrTypeUserAgreement = 133;
inline constexpr int kAgrTypePrivacyStatement = 10021;

// Result codes of the server requests and the privacy configuration.
inline constexpr int kResultSuccess = 0;
inline constexpr int kResultNoServerHost = 2;
inline constexpr int kResultBadReply = 400;
inline constexpr int kResultNoMatchingVersion = 1011;
inline constexpr int kResultLocalFailure = 1102;

// Results of the consent decision.
inline constexpr int kJudgeAgreed = -1;
inline constexpr int kJudgeNoRecord = 0;
inline constexpr int kJudgeOutdated = 1;
inline constexpr int kJudgeNotSupported = 2;

// Default server version while the server has not spoken, and the branch of the first query.
inline constexpr char kDefaultQdsVersion[] = "20190815";
inline constexpr char kFirstQueryBranchId[] = "0";
inline constexpr char kCommonCountry[] = "common";

// Routing of the agreement server.
inline constexpr char kAgreementServiceName[] = "com.zorvane.cloud.agreementservice";
inline constexpr char kRlxKeyRoot[] = "ROOT";
inline constexpr char kRlxKeyCommonApi[] = "COMMONAPI";
inline constexpr char kVersionRequestPath[] = "/user/getVersion";

// The privacy document, relative to the program directory.
inline constexpr char kPrivacyConfigFile[] = "config/local_config/tessalink_privacy_v1.1_new.dat";
inline constexpr char kPrivacyBetaConfigFile[] = "config/local_config/tessalink_privacy_v1.1_beta_new.dat";

}  // namespace qlb::consent
