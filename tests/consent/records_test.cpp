// The agreement records and caches in the registry: who writes which value, and how missing values read.

#include <gtest/gtest.h>

#include "consent/account_util.h"
#include "consent/agreement_service.h"
#include "consent/agreement_sign.h"
#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "support/consent_test_env.h"
#include "support/consent_test_peer.h"

namespace qlb::consent::testing {
namespace {

const std::wstring kIntactUserAgreement = std::wstring(kRecordWithoutLoginKey) + kUserAgreementSubkey;
const std::wstring kIntactPrivacy = std::wstring(kRecordWithoutLoginKey) + kPrivacyStatementSubkey;

class AccountUtilTest : public ConsentTest {};

TEST_F(AccountUtilTest, MissingValueAndMissingKeyReadZero) {
    EXPECT_EQ(AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue), "0");
    SetUserValue(kAgreementServiceKey, L"Other", "x");
    EXPECT_EQ(AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue), "0");
}

TEST_F(AccountUtilTest, ReadsUnderTheCurrentUsersSubkeyOnly) {
    SetUserValue(kAgreementServiceKey, kUserLoginFlagValue, "1");
    EXPECT_EQ(AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue), "1");
    SetCurrentUserSidProvider([] { return std::wstring(L"S-1-22-1-4242"); });
    EXPECT_EQ(AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue), "0");
}

TEST_F(AccountUtilTest, CreateRegeditPathMakesTheKeyAndGivesItsFullPath) {
    const std::wstring full = AccountUtil::CreateRegeditPath(kWithLoginQdsVersionKey);
    EXPECT_EQ(full, std::wstring(kTestSid) + kWithLoginQdsVersionKey);
    EXPECT_TRUE(UserKeyExists(kWithLoginQdsVersionKey));
}

class AgreeFlagsTest : public ConsentTest {};

TEST_F(AgreeFlagsTest, AgreeCacheIsTrueOnlyForExactlyOne) {
    EXPECT_FALSE(AgreementSign::GetAgreeCache());
    AgreementSign::SetAgreeCache(true);
    EXPECT_EQ(UserValue(kAgreementServiceKey, kWndAgreeCacheValue), "1");
    EXPECT_TRUE(AgreementSign::GetAgreeCache());
    AgreementSign::SetAgreeCache(false);
    EXPECT_EQ(UserValue(kAgreementServiceKey, kWndAgreeCacheValue), "0");
    EXPECT_FALSE(AgreementSign::GetAgreeCache());
    SetUserValue(kAgreementServiceKey, kWndAgreeCacheValue, "11");
    EXPECT_FALSE(AgreementSign::GetAgreeCache());
}

TEST_F(AgreeFlagsTest, AgreeFlagIsWrittenAndTheDeleteLeavesIt) {
    ConsentTestPeer::RecordeAgreeFlag();
    EXPECT_EQ(UserValue(kAgreementServiceKey, kAgreeFlagValue), "1");
    // The existence test runs without a root, so the value stays.
    ConsentTestPeer::DeleteAgreeFlag();
    EXPECT_EQ(UserValue(kAgreementServiceKey, kAgreeFlagValue), "1");
}

class SetRecordRegValueTest : public ConsentTest {
  protected:
    AgreementService& service() { return *AgreementService::GetInstance(); }
};

TEST_F(SetRecordRegValueTest, WithoutLoginFlagNothingIsWrittenAndItSucceeds) {
    EXPECT_TRUE(service().SetRecordRegValue(133, 20220615, 21));
    EXPECT_FALSE(UserKeyExists(kRecordWithLoginKey));
    EXPECT_TRUE(Logged("account is not login, do not set record reg value"));
}

TEST_F(SetRecordRegValueTest, WritesVersionUnderTheTypeAndTheBranch) {
    SetLoggedIn(true);
    SetServerUpdated(true);
    EXPECT_TRUE(service().SetRecordRegValue(10021, 20220615, 21));
    EXPECT_EQ(UserValue(kRecordWithLoginKey, L"10021"), "20220615");
    EXPECT_EQ(UserValue(kRecordWithLoginKey, kBranchIdValue), "21");
    EXPECT_FALSE(UserValue(kRecordWithLoginKey, L"133").has_value());
}

TEST_F(SetRecordRegValueTest, BeforeTheServerSpokeANewerIntactRecordCarriesOver) {
    SetLoggedIn(true);
    SetUserValue(kIntactUserAgreement, kIntactVersionValue, "20240301");
    SetUserValue(kIntactUserAgreement, kIntactBranchIdValue, "31");
    EXPECT_TRUE(service().SetRecordRegValue(133, 20220615, 21));
    EXPECT_EQ(UserValue(kRecordWithLoginKey, L"133"), "20240301");
    EXPECT_EQ(UserValue(kRecordWithLoginKey, kBranchIdValue), "31");
}

TEST_F(SetRecordRegValueTest, OnceTheServerSpokeTheIntactRecordIsNotLookedAt) {
    SetLoggedIn(true);
    SetServerUpdated(true);
    SetUserValue(kIntactUserAgreement, kIntactVersionValue, "20240301");
    SetUserValue(kIntactUserAgreement, kIntactBranchIdValue, "31");
    EXPECT_TRUE(service().SetRecordRegValue(133, 20220615, 21));
    EXPECT_EQ(UserValue(kRecordWithLoginKey, L"133"), "20220615");
    EXPECT_EQ(UserValue(kRecordWithLoginKey, kBranchIdValue), "21");
}

class IntactRecordTest : public ConsentTest {};

TEST_F(IntactRecordTest, BothAgreementsAreRecordedWithSixValues) {
    SetUserValue(kWithoutLoginLocalVersionKey, L"133", "20220615");
    SetUserValue(kWithoutLoginLocalVersionKey, L"10021", "20220616");
    SetUserValue(kWithoutLoginLocalVersionKey, kBranchIdValue, "21");
    profile().region = {"US", "DE", "en-US"};
    ApplyProfile();
    AgreementService::GetInstance()->SetRecordWithoutLogin();

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
}

TEST_F(IntactRecordTest, OnceTheServerSpokeTheServerVersionsAreRecorded) {
    SetServerUpdated(true);
    SetUserValue(kWithoutLoginLocalVersionKey, L"133", "20220615");
    SetUserValue(kWithoutLoginQdsVersionKey, L"133", "20240301");
    AgreementService::GetInstance()->SetRecordWithoutLogin();
    EXPECT_EQ(UserValue(kIntactUserAgreement, kIntactVersionValue), "20240301");
    EXPECT_EQ(UserValue(kIntactUserAgreement, kIntactCountryValue), "cn");
    // A missing source reads "0".
    EXPECT_EQ(UserValue(kIntactPrivacy, kIntactVersionValue), "0");
}

class LoginCacheTest : public ConsentTest {
  protected:
    AgreementService& service() { return *AgreementService::GetInstance(); }
};

TEST_F(LoginCacheTest, SaveCacheCopiesTheVersionsInForceAndTheLoginBranch) {
    SetUserValue(kWithoutLoginLocalVersionKey, L"133", "20220615");
    SetUserValue(kWithoutLoginLocalVersionKey, L"10021", "20220615");
    SetUserValue(kWithLoginLocalVersionKey, kBranchIdValue, "21");
    EXPECT_FALSE(service().IfHaveCache());
    service().SaveCache();
    EXPECT_TRUE(service().IfHaveCache());
    // The deciding side's spelling reaches the same key.
    EXPECT_EQ(UserValue(kRecordWithLoginCacheKey, L"133"), "20220615");
    EXPECT_EQ(UserValue(kRecordWithLoginCacheKey, L"10021"), "20220615");
    EXPECT_EQ(UserValue(kRecordWithLoginCacheKey, kBranchIdValue), "21");
}

TEST_F(LoginCacheTest, NeedsUpdateWhenAVersionInForceIsNewer) {
    EXPECT_FALSE(service().NeedUpdateExistCache());
    SetUserValue(kWithoutLoginLocalVersionKey, L"133", "20220615");
    SetUserValue(kWithoutLoginLocalVersionKey, L"10021", "20220615");
    service().SaveCache();
    EXPECT_FALSE(service().NeedUpdateExistCache());
    SetUserValue(kWithoutLoginLocalVersionKey, L"10021", "20240301");
    EXPECT_TRUE(service().NeedUpdateExistCache());
    SetUserValue(kRecordWithLoginCacheKey, L"10021", "20250101");
    EXPECT_FALSE(service().NeedUpdateExistCache());
}

TEST_F(LoginCacheTest, DeleteCacheRemovesTheKey) {
    service().SaveCache();
    ASSERT_TRUE(service().IfHaveCache());
    service().DeleteCache();
    EXPECT_FALSE(service().IfHaveCache());
    EXPECT_FALSE(UserKeyExists(kRecordWithLoginCacheKey));
}

class JudgeBranchIdTest : public ConsentTest {};

TEST_F(JudgeBranchIdTest, LoginRecordAndCacheCompareWithTheLoginLocalBranch) {
    SetUserValue(kWithLoginLocalVersionKey, kBranchIdValue, "21");
    SetUserValue(kRecordWithLoginKey, kBranchIdValue, "21");
    SetUserValue(kRecordWithLoginCacheKey, kBranchIdValue, "11");
    EXPECT_EQ(ConsentTestPeer::JudgeBranchId(kRecordWithLoginKey), -1);
    EXPECT_EQ(ConsentTestPeer::JudgeBranchId(kRecordWithLoginCacheKey), 1);
    EXPECT_EQ(ConsentTestPeer::JudgeBranchId(kRecordWithLoginCacheServiceKey), 1);
}

TEST_F(JudgeBranchIdTest, AnythingElseComparesThePrivacyIntactRecord) {
    SetUserValue(kWithoutLoginLocalVersionKey, kBranchIdValue, "21");
    SetUserValue(kIntactPrivacy, kIntactBranchIdValue, "21");
    EXPECT_EQ(ConsentTestPeer::JudgeBranchId(L"\\Anything"), -1);
    SetUserValue(kIntactPrivacy, kIntactBranchIdValue, "3");
    EXPECT_EQ(ConsentTestPeer::JudgeBranchId(L"\\Anything"), 1);
}

}  // namespace
}  // namespace qlb::consent::testing
