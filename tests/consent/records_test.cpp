// The agreement records and caches in the registry, and the consent decision read from them.

#include <gtest/gtest.h>

#include <sstream>

#include "consent/account_util.h"
#include "consent/agreement_service.h"
#include "consent/agreement_sign.h"
#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "support/consent_test_env.h"

namespace qlb::consent::testing {
namespace {

const std::wstring kIntactUserAgreement = std::wstring(kRecordWithoutLoginKey) + kUserAgreementSubkey;
const std::wstring kIntactPrivacy = std::wstring(kRecordWithoutLoginKey) + kPrivacyStatementSubkey;
const std::string kOld = "20220615";
const std::string kNew = "20240301";

class RecordsTest : public ConsentTest {
  protected:
    // Both agreement versions as "<133> <10021>": "new" and "old" stand for kNew and kOld, "-" leaves a
    // value out.
    void Versions(const std::wstring& key133, const std::wstring& key10021, const std::wstring& name133,
                  const std::wstring& name10021, const std::string& versions) {
        std::istringstream in(versions);
        for (const auto& [key, name] : {std::pair(key133, name133), std::pair(key10021, name10021)}) {
            std::string v;
            if (in >> v && v != "-") {
                SetUserValue(key, name, v == "new" ? kNew : v == "old" ? kOld : v);
            }
        }
    }
    void Versions(const std::wstring& key, const std::string& versions) {
        Versions(key, key, L"133", L"10021", versions);
    }
    AgreementService& service() { return *AgreementService::GetInstance(); }
};

TEST_F(RecordsTest, FlagsReadZeroWhenMissingAndOnlyUnderTheCurrentUser) {
    EXPECT_EQ(AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue), "0");
    SetLoggedIn(true);
    EXPECT_EQ(AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue), "1");
    SetCurrentUserSidProvider([] { return std::wstring(L"S-1-22-1-4242"); });
    EXPECT_EQ(AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue), "0");
}

TEST_F(RecordsTest, LoginRecordNeedsALoggedInUserAndTakesANewerIntactVersionBeforeTheServerSpoke) {
    EXPECT_TRUE(service().SetRecordRegValue(133, 20220615, 21));
    EXPECT_FALSE(UserKeyExists(kRecordWithLoginKey));
    EXPECT_TRUE(Logged("account is not login, do not set record reg value"));
    // Logged in, a newer intact record carries over only before the server has spoken.
    SetLoggedIn(true);
    SetUserValue(kIntactUserAgreement, kIntactVersionValue, "20240301");
    SetUserValue(kIntactUserAgreement, kIntactBranchIdValue, "31");
    for (const bool updated : {false, true}) {
        SetServerUpdated(updated);
        EXPECT_TRUE(service().SetRecordRegValue(133, 20220615, 21));
        EXPECT_EQ(UserValue(kRecordWithLoginKey, L"133"), updated ? "20220615" : "20240301");
        EXPECT_EQ(UserValue(kRecordWithLoginKey, kBranchIdValue), updated ? "21" : "31");
        EXPECT_FALSE(UserValue(kRecordWithLoginKey, L"10021").has_value());
    }
}

TEST_F(RecordsTest, IntactRecordsHoldSixValuesOfTheVersionsInForce) {
    Versions(kWithoutLoginLocalVersionKey, "20220615 20220616");
    SetUserValue(kWithoutLoginLocalVersionKey, kBranchIdValue, "21");
    profile().region = {"US", "DE", "en-US"};
    ApplyProfile();
    service().SetRecordWithoutLogin();

    EXPECT_EQ(UserValue(kIntactUserAgreement, kIntactAgrTypeValue), "133");
    EXPECT_EQ(UserValue(kIntactUserAgreement, kIntactVersionValue), "20220615");
    EXPECT_EQ(UserValue(kIntactPrivacy, kIntactAgrTypeValue), "10021");
    EXPECT_EQ(UserValue(kIntactPrivacy, kIntactVersionValue), "20220616");
    for (const auto& key : {kIntactUserAgreement, kIntactPrivacy}) {
        // Before the server has spoken the sale country is the one asked for.
        EXPECT_EQ(UserValue(key, kIntactCountryValue), "de");
        EXPECT_EQ(UserValue(key, kIntactIsAgreeValue), "1");
        EXPECT_EQ(UserValue(key, kIntactBranchIdValue), "21");
        ASSERT_TRUE(UserValue(key, kIntactSignTimeValue).has_value());
        EXPECT_EQ(UserValue(key, kIntactSignTimeValue)->size(), 23u);
    }

    SetServerUpdated(true);
    Versions(kWithoutLoginQdsVersionKey, "20240301 -");
    service().SetRecordWithoutLogin();
    EXPECT_EQ(UserValue(kIntactUserAgreement, kIntactVersionValue), "20240301");
    EXPECT_EQ(UserValue(kIntactUserAgreement, kIntactCountryValue), "us");  // now the service country
    EXPECT_EQ(UserValue(kIntactPrivacy, kIntactVersionValue), "0");         // a missing source reads "0"
}

TEST_F(RecordsTest, LoginCacheCopiesTheVersionsInForceAndGoesStaleWhenOneIsNewer) {
    Versions(kWithoutLoginLocalVersionKey, "20220615 20220615");
    SetUserValue(kWithLoginLocalVersionKey, kBranchIdValue, "21");
    EXPECT_FALSE(service().IfHaveCache());
    EXPECT_FALSE(service().NeedUpdateExistCache());
    service().SaveCache();
    EXPECT_TRUE(service().IfHaveCache());
    // The deciding side's spelling reaches the same key.
    EXPECT_EQ(UserValue(kRecordWithLoginCacheKey, L"133"), "20220615");
    EXPECT_EQ(UserValue(kRecordWithLoginCacheKey, L"10021"), "20220615");
    EXPECT_EQ(UserValue(kRecordWithLoginCacheKey, kBranchIdValue), "21");
    EXPECT_FALSE(service().NeedUpdateExistCache());

    Versions(kWithoutLoginLocalVersionKey, "- 20240301");
    EXPECT_TRUE(service().NeedUpdateExistCache());
    Versions(kRecordWithLoginCacheKey, "- 20250101");
    EXPECT_FALSE(service().NeedUpdateExistCache());

    service().DeleteCache();
    EXPECT_FALSE(UserKeyExists(kRecordWithLoginCacheKey));
}

TEST_F(RecordsTest, QdsSupportAndAnAgreeCacheOfExactlyOneDecideFirst) {
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);
    AgreementSign::SetAgreeCache(true);
    EXPECT_EQ(UserValue(kAgreementServiceKey, kWndAgreeCacheValue), "1");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
    SetUserValue(kAgreementServiceKey, kWndAgreeCacheValue, "11");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);
    AgreementSign::SetAgreeCache(false);
    EXPECT_EQ(UserValue(kAgreementServiceKey, kWndAgreeCacheValue), "0");
    AgreementSign::SetAgreeCache(true);
    profile().capabilities.plugins.clear();  // no QDS
    ApplyProfile();
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 2);
}

TEST_F(RecordsTest, OnlyLoginFlagOneLeadsToTheLoginRecords) {
    Versions(kWithoutLoginLocalVersionKey, "20220615 20220615");
    Versions(kRecordWithLoginKey, "20220615 20220615");
    for (const char* flag : {"0", "true", "yes", " 1", "2"}) {
        SetUserValue(kAgreementServiceKey, kUserLoginFlagValue, flag);
        EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0) << flag;
    }
    SetLoggedIn(true);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
}

// One decision (-1 agreed, 0 no record, 1 outdated) from the versions in force and the records, each
// given as "<133> <10021>" with "-" for a missing value ("" writes nothing). Versions compare as text.
struct Decision {
    const char* what;
    bool loggedIn;
    bool serverUpdated;
    const char* inForce;
    const char* loginRecord;
    const char* loginCache;
    const char* intact;
    int expected;
};

const Decision kDecisions[] = {
    {"login: no record, no cache", true, true, "new new", "", "", "", 0},
    {"login: an agreed record wins over the cache", true, true, "new new", "new new", "1 1", "", -1},
    {"login: a cache of the versions in force", true, true, "new new", "", "new new", "", -1},
    {"login: outdated record, agreed cache", true, true, "new new", "old old", "new new", "", -1},
    {"login: outdated cache", true, true, "new new", "", "new old", "", 1},
    {"login: outdated record", true, true, "new new", "old new", "", "", 1},
    {"login: a missing record value reads 0", true, true, "new 0", "new -", "", "", -1},
    {"login: eight digits are below nine", true, true, "9 9", "20190815 20190815", "", "", 1},
    {"login before the server spoke: the without-login local versions", true, false, "old old", "old old", "",
     "", -1},
    {"login before the server spoke, newer", true, false, "new old", "old old", "", "", 1},
    {"login records play no part without login", false, false, "old old", "new new", "", "", 0},
    {"intact records of the versions in force", false, false, "old old", "", "", "old old", -1},
    {"a missing privacy statement record", false, false, "old old", "", "", "old -", 1},
    {"after the server spoke: the without-login server versions", false, true, "old new", "", "", "old old",
     1},
    {"after the server spoke, same", false, true, "old old", "", "", "old old", -1},
};

class DecisionTest : public RecordsTest, public ::testing::WithParamInterface<Decision> {};

TEST_P(DecisionTest, JudgesFromTheRegistry) {
    const Decision& item = GetParam();
    SetLoggedIn(item.loggedIn);
    SetServerUpdated(item.serverUpdated);
    const wchar_t* inForceKey = !item.serverUpdated ? kWithoutLoginLocalVersionKey
                                : item.loggedIn     ? kWithLoginQdsVersionKey
                                                    : kWithoutLoginQdsVersionKey;
    Versions(inForceKey, item.inForce);
    Versions(kRecordWithLoginKey, item.loginRecord);
    Versions(kRecordWithLoginCacheKey, item.loginCache);
    Versions(kIntactUserAgreement, kIntactPrivacy, kIntactVersionValue, kIntactVersionValue, item.intact);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), item.expected) << item.what;
}

INSTANTIATE_TEST_SUITE_P(Decisions, DecisionTest, ::testing::ValuesIn(kDecisions));

}  // namespace
}  // namespace qlb::consent::testing
