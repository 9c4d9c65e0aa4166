// The consent decision for both login states, from the registry alone.

#include <gtest/gtest.h>

#include "consent/agreement_service.h"
#include "consent/agreement_sign.h"
#include "consent/consent_keys.h"
#include "support/consent_test_env.h"
#include "support/consent_test_peer.h"

namespace qlb::consent::testing {
namespace {

const std::wstring kIntactUserAgreement = std::wstring(kRecordWithoutLoginKey) + kUserAgreementSubkey;
const std::wstring kIntactPrivacy = std::wstring(kRecordWithoutLoginKey) + kPrivacyStatementSubkey;

class DecisionTest : public ConsentTest {
  protected:
    void InForce(const std::wstring& key, const std::string& v133, const std::string& v10021) {
        SetUserValue(key, L"133", v133);
        SetUserValue(key, L"10021", v10021);
    }
    void Record(const std::wstring& key, const std::string& v133, const std::string& v10021) {
        SetUserValue(key, L"133", v133);
        SetUserValue(key, L"10021", v10021);
    }
    void Intact(const std::string& v133, const std::string& v10021) {
        SetUserValue(kIntactUserAgreement, kIntactVersionValue, v133);
        SetUserValue(kIntactPrivacy, kIntactVersionValue, v10021);
    }
};

TEST_F(DecisionTest, DeviceWithoutQdsIsOutsideWhateverTheRegistryHolds) {
    AgreementSign::SetAgreeCache(true);
    SetQds(false);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 2);
}

TEST_F(DecisionTest, AgreeCacheAnswersAgreedEvenWithoutRecords) {
    AgreementSign::SetAgreeCache(true);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
    AgreementSign::SetAgreeCache(false);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);
}

TEST_F(DecisionTest, OnlyLoginFlagOneLeadsToTheLoginBranch) {
    InForce(kWithoutLoginLocalVersionKey, "20220615", "20220615");
    Record(kRecordWithLoginKey, "20220615", "20220615");
    // Login record agreed, no intact record: -1 logged in, 0 otherwise.
    for (const char* flag : {"0", "true", "yes", " 1", "2"}) {
        SetUserValue(kAgreementServiceKey, kUserLoginFlagValue, flag);
        EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0) << flag;
    }
    SetUserValue(kAgreementServiceKey, kUserLoginFlagValue, "1");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
}

// Logged in: the login record r and the cache c combine.
class LoginDecisionTest : public DecisionTest {
  protected:
    void SetUp() override {
        DecisionTest::SetUp();
        SetLoggedIn(true);
        SetServerUpdated(true);
        InForce(kWithLoginQdsVersionKey, "20240301", "20240301");
    }
};

TEST_F(LoginDecisionTest, NoRecordNoCacheIsZero) {
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);
}

TEST_F(LoginDecisionTest, RecordAgreedWinsWithoutLookingAtTheCache) {
    Record(kRecordWithLoginKey, "20240301", "20240301");
    Record(kRecordWithLoginCacheKey, "1", "1");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
}

TEST_F(LoginDecisionTest, NoRecordButCacheWithTheVersionsInForceIsAgreed) {
    Record(kRecordWithLoginCacheKey, "20240301", "20240301");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
}

TEST_F(LoginDecisionTest, OutdatedRecordWithAgreedCacheIsAgreed) {
    Record(kRecordWithLoginKey, "20220615", "20220615");
    Record(kRecordWithLoginCacheKey, "20240301", "20240301");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
}

TEST_F(LoginDecisionTest, NoRecordAndOutdatedCacheIsOutdated) {
    Record(kRecordWithLoginCacheKey, "20240301", "20220615");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
}

TEST_F(LoginDecisionTest, OutdatedRecordWithoutCacheIsOutdated) {
    Record(kRecordWithLoginKey, "20220615", "20240301");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
}

TEST_F(LoginDecisionTest, VersionsCompareAsTextSoAnEightDigitRecordIsBelowNine) {
    InForce(kWithLoginQdsVersionKey, "9", "9");
    Record(kRecordWithLoginKey, "20190815", "20190815");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
}

TEST_F(LoginDecisionTest, BeforeTheServerSpokeTheWithoutLoginLocalVersionsAreInForce) {
    SetServerUpdated(false);
    InForce(kWithoutLoginLocalVersionKey, "20220615", "20220615");
    Record(kRecordWithLoginKey, "20220615", "20220615");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
    InForce(kWithoutLoginLocalVersionKey, "20240301", "20220615");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
}

TEST_F(LoginDecisionTest, JudgeWhenLoginReadsAMissingValueAsZero) {
    SetUserValue(kRecordWithLoginKey, L"133", "20240301");
    EXPECT_EQ(ConsentTestPeer::JudgeWhenLogin(kRecordWithLoginKey, "20240301", "20240301"), 1);
    EXPECT_EQ(ConsentTestPeer::JudgeWhenLogin(kRecordWithLoginKey, "20240301", "0"), -1);
    EXPECT_EQ(ConsentTestPeer::JudgeWhenLogin(L"\\Software\\Nowhere", "1", "1"), 0);
}

// Not logged in: the intact records decide.
class WithoutLoginDecisionTest : public DecisionTest {
  protected:
    void SetUp() override {
        DecisionTest::SetUp();
        SetLoggedIn(false);
        InForce(kWithoutLoginLocalVersionKey, "20220615", "20220615");
    }
};

TEST_F(WithoutLoginDecisionTest, NoIntactRecordIsZero) {
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);
}

TEST_F(WithoutLoginDecisionTest, IntactRecordsOfTheVersionsInForceAreAgreed) {
    Intact("20220615", "20220615");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
}

TEST_F(WithoutLoginDecisionTest, AMissingPrivacyStatementRecordIsOutdated) {
    SetUserValue(kIntactUserAgreement, kIntactVersionValue, "20220615");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
}

TEST_F(WithoutLoginDecisionTest, OnceTheServerSpokeTheWithoutLoginServerVersionsAreInForce) {
    Intact("20220615", "20220615");
    SetServerUpdated(true);
    InForce(kWithoutLoginQdsVersionKey, "20220615", "20240301");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
    InForce(kWithoutLoginQdsVersionKey, "20220615", "20220615");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
}

TEST_F(WithoutLoginDecisionTest, LoginRecordsPlayNoPart) {
    Record(kRecordWithLoginKey, "20250101", "20250101");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);
}

// Transitions of the consent state through the record operations.
class ConsentLifecycleTest : public DecisionTest {};

TEST_F(ConsentLifecycleTest, AgreeingWithoutAccountThenLoggingInAndOut) {
    InForce(kWithoutLoginLocalVersionKey, "20220615", "20220615");
    SetUserValue(kWithoutLoginLocalVersionKey, kBranchIdValue, "21");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);

    AgreementService::GetInstance()->SetRecordWithoutLogin();
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);

    // Logging in: the login record decides, and there is none yet.
    SetLoggedIn(true);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);
    // The server's record arrives and the intact version carries over.
    EXPECT_TRUE(AgreementService::GetInstance()->SetRecordRegValue(133, 20190815, 1));
    EXPECT_TRUE(AgreementService::GetInstance()->SetRecordRegValue(10021, 20190815, 1));
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);

    // A refresh brings a newer version: asked again.
    InForce(kWithoutLoginLocalVersionKey, "20240301", "20240301");
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
    // The cache of the versions now in force stands in for the login record.
    AgreementService::GetInstance()->SaveCache();
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);

    // Logging out: the intact records decide again, and they are behind.
    SetLoggedIn(false);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
}

}  // namespace
}  // namespace qlb::consent::testing
