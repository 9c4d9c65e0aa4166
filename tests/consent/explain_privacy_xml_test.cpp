// The privacy configuration: the version helpers, the entry walk, and whole refreshes against a local
// HTTPS agreement server.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>
#include <memory>

#include "consent/account_util.h"
#include "consent/agreement_sign.h"
#include "consent/consent_keys.h"
#include "consent/explain_privacy_xml.h"
#include "consent/table_cipher.h"
#include "runtime/common/strings.h"
#include "runtime/xml/zv_xml.h"
#include "support/consent_test_env.h"
#include "support/consent_test_peer.h"
#include "support/tls_test_server.h"

namespace qlb::consent::testing {
namespace {

using nlohmann::json;

TEST(VersionHelpers, KindSuffixIsCutAtTheFirstParenthesis) {
    std::string version = "11.0.0.1(C233)";
    ExplainPrivacyXml::VerSplitKind(version);
    EXPECT_EQ(version, "11.0.0.1");
    version = "11.0.0.1";
    ExplainPrivacyXml::VerSplitKind(version);
    EXPECT_EQ(version, "11.0.0.1");
    version = "(x)";
    ExplainPrivacyXml::VerSplitKind(version);
    EXPECT_EQ(version, "");
}

TEST(VersionHelpers, ValidVersionsAreDigitsBetweenDots) {
    EXPECT_TRUE(ExplainPrivacyXml::IsVersionValid("11.0.0.1"));
    EXPECT_TRUE(ExplainPrivacyXml::IsVersionValid("0"));
    EXPECT_TRUE(ExplainPrivacyXml::IsVersionValid("1..2"));
    EXPECT_FALSE(ExplainPrivacyXml::IsVersionValid(""));
    EXPECT_FALSE(ExplainPrivacyXml::IsVersionValid("11.0.0.1(C233)"));
    EXPECT_FALSE(ExplainPrivacyXml::IsVersionValid("1.-2"));
    EXPECT_FALSE(ExplainPrivacyXml::IsVersionValid("1.2 "));
}

TEST(VersionHelpers, LeadingBLettersAreDroppedFromBranchIds) {
    std::string branch = "b12";
    EXPECT_TRUE(ExplainPrivacyXml::SplitBFromBranchId(branch));
    EXPECT_EQ(branch, "12");
    branch = "bb7b";
    EXPECT_TRUE(ExplainPrivacyXml::SplitBFromBranchId(branch));
    EXPECT_EQ(branch, "7b");
    branch = "12";
    EXPECT_TRUE(ExplainPrivacyXml::SplitBFromBranchId(branch));
    EXPECT_EQ(branch, "12");
    branch = "B3";
    EXPECT_TRUE(ExplainPrivacyXml::SplitBFromBranchId(branch));
    EXPECT_EQ(branch, "B3");
    branch = "bbb";
    EXPECT_FALSE(ExplainPrivacyXml::SplitBFromBranchId(branch));
    EXPECT_EQ(branch, "bbb");
    branch = "";
    EXPECT_FALSE(ExplainPrivacyXml::SplitBFromBranchId(branch));
}

TEST(VersionHelpers, VersionsCompareFieldByFieldAsNumbers) {
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("1.2", "1.2.0"), 0);
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("1.10", "1.9"), 1);
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("1.9", "1.10"), 2);
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("11.0.0.1", "0"), 1);
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("", ""), 0);
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("1..3", "1.0.3"), 0);
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("2", "10"), 2);
    EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare("99999999999999", "1"), 1);
}

class PrivacyTest : public ConsentTest {};

TEST_F(PrivacyTest, BrandFollowsTheVendorAndZorvaneWins) {
    SetBrand("ZORVANE");
    EXPECT_EQ(ExplainPrivacyXml::GetBrand(), "zorvane");
    SetBrand("lumira");
    EXPECT_EQ(ExplainPrivacyXml::GetBrand(), "lumira");
    SetBrand("Other Inc.");
    EXPECT_EQ(ExplainPrivacyXml::GetBrand(), "");
}

// The entry walk over the shipped document.
class PrivacyNodeTest : public PrivacyTest {
  protected:
    void SetUp() override {
        PrivacyTest::SetUp();
        ASSERT_EQ(document_.Parse(ShippedPrivacyXml()), 0);
    }
    std::string Pick(const std::string& brand, const std::string& version, const std::string& country) {
        const ZvXmlElement node =
            ConsentTestPeer::InitLocalVersionAndBranchId(document_.RootElement(), brand, version, country);
        return node.IsElementNull() ? "null" : node.FirstNode("branch_id").Value();
    }
    ZvXMLDocument document_;
};

TEST_F(PrivacyNodeTest, FirstEntryNotAboveTheInstalledVersionApplies) {
    EXPECT_EQ(Pick("zorvane", "12.1", "CN"), "b31");
    EXPECT_EQ(Pick("zorvane", "12.0.0.0", "CN"), "b31");
    EXPECT_EQ(Pick("zorvane", "11.9", "CN"), "b21");
    EXPECT_EQ(Pick("zorvane", "10.2", "CN"), "b11");
    EXPECT_EQ(Pick("zorvane", "3", "CN"), "b1");
    EXPECT_EQ(Pick("lumira", "11.2.0.0", "JP"), "b52");
}

TEST_F(PrivacyNodeTest, CountryIsComparedExactlyAndAbsentCountryGivesNull) {
    EXPECT_EQ(Pick("zorvane", "11.0", "cn"), "null");
    EXPECT_EQ(Pick("zorvane", "11.0", "FR"), "null");
    EXPECT_EQ(Pick("Zorvane", "11.0", "CN"), "null");
    EXPECT_TRUE(Logged("InitPrivacyVersionAndBranchId failed"));
}

TEST_F(PrivacyNodeTest, InvalidInputGivesNull) {
    EXPECT_EQ(Pick("", "11.0", "CN"), "null");
    EXPECT_EQ(Pick("zorvane", "11.0(x)", "CN"), "null");
    EXPECT_EQ(Pick("zorvane", "11.0", ""), "null");
    EXPECT_TRUE(Logged("WARN Invalid input (ExplainPrivacyXml::InitLocalVersionAndBranchId)"));
}

TEST_F(PrivacyNodeTest, MissingCountryFallsBackToCommon) {
    ZvXmlElement node;
    EXPECT_EQ(ConsentTestPeer::GetPrivacyNode("FR", document_, node), 0);
    EXPECT_EQ(node.FirstNode("branch_id").Value(), "b20");
}

TEST_F(PrivacyNodeTest, EmptyBrandFailsBothAttempts) {
    SetBrand("Other");
    ZvXmlElement node;
    EXPECT_EQ(ConsentTestPeer::GetPrivacyNode("CN", document_, node), 1102);
    EXPECT_TRUE(node.IsElementNull());
}

TEST_F(PrivacyNodeTest, BrokenElementsEndTheWalkWithTheirLogLines) {
    ZvXMLDocument doc;
    ASSERT_EQ(doc.Parse(R"(<p><brand/><brand name="zorvane"/></p>)"), 0);
    EXPECT_TRUE(ConsentTestPeer::InitLocalVersionAndBranchId(doc.RootElement(), "zorvane", "1", "CN")
                    .IsElementNull());
    EXPECT_TRUE(Logged("find brandNameAttribute name failed"));

    ASSERT_EQ(doc.Parse(R"(<p><brand name="zorvane"><country name="CN"><PRIVACY/></country></brand></p>)"),
              0);
    EXPECT_TRUE(ConsentTestPeer::InitLocalVersionAndBranchId(doc.RootElement(), "zorvane", "1", "CN")
                    .IsElementNull());
    EXPECT_TRUE(Logged("get pcVersionNode failed"));

    ASSERT_EQ(doc.Parse(R"(<p><brand name="zorvane"><country/><country name="CN"/></brand></p>)"), 0);
    EXPECT_TRUE(ConsentTestPeer::InitLocalVersionAndBranchId(doc.RootElement(), "zorvane", "1", "CN")
                    .IsElementNull());
}

TEST_F(PrivacyNodeTest, EntryVersionAndBranchNeedBothElementsAndALegalBranch) {
    ZvXMLDocument doc;
    ASSERT_EQ(doc.Parse(R"(<p><a><privacy_version>5</privacy_version><branch_id>bb9</branch_id></a>)"
                        R"(<b><privacy_version>5</privacy_version></b>)"
                        R"(<c><privacy_version>5</privacy_version><branch_id>bbb</branch_id></c></p>)"),
              0);
    std::string version;
    std::string branch;
    EXPECT_TRUE(
        ConsentTestPeer::GetVersionFromPrivacyNode(doc.RootElement().FirstNode("a"), version, branch));
    EXPECT_EQ(version, "5");
    EXPECT_EQ(branch, "9");
    EXPECT_FALSE(
        ConsentTestPeer::GetVersionFromPrivacyNode(doc.RootElement().FirstNode("b"), version, branch));
    EXPECT_FALSE(
        ConsentTestPeer::GetVersionFromPrivacyNode(doc.RootElement().FirstNode("c"), version, branch));
    EXPECT_TRUE(Logged("branchId illegalbbb"));
    EXPECT_FALSE(ConsentTestPeer::GetVersionFromPrivacyNode(ZvXmlElement(), version, branch));
}

// Whole refreshes.
class RefreshTest : public PrivacyTest {
  protected:
    void SetUp() override {
        PrivacyTest::SetUp();
        InstallPrivacyDocument(ShippedPrivacyXml());
        server_ = std::make_unique<TlsTestServer>(dir());
        ASSERT_TRUE(server_->ok());
        profile().caFile = server_->CertificateFile();
        ApplyProfile();
    }
    void TearDown() override {
        server_.reset();
        PrivacyTest::TearDown();
    }
    void ConnectServer() {
        profile().services[kAgreementServiceName] = {{kRlxKeyRoot, server_->BaseUrl()},
                                                     {kRlxKeyCommonApi, server_->BaseUrl()}};
        ApplyProfile();
    }
    // The server answers each branch id from the table; a branch it does not know gets 1011.
    void ServeVersions(std::map<int, std::string> replies) {
        server_->SetHandler([replies](const TlsExchange& request) {
            const json body = json::parse(request.body, nullptr, false);
            const int branch = body.is_discarded() ? -1 : body["agrInfo"][0]["branchId"].get<int>();
            const auto it = replies.find(branch);
            return TlsReply::Json(it == replies.end() ? R"({"errorCode":1011})" : it->second);
        });
    }
    static std::string Version(const std::string& version) {
        return R"({"errorCode":0,"versionInfo":[{"agrType":133,"latestVersion":)" + version +
               R"(},{"agrType":10021,"latestVersion":)" + version + "}]}";
    }
    std::vector<int> BranchesAsked() const {
        std::vector<int> branches;
        for (const auto& request : server_->Requests()) {
            branches.push_back(json::parse(request.body)["agrInfo"][0]["branchId"].get<int>());
        }
        return branches;
    }
    void ExpectVersions(const std::wstring& localKey, const std::wstring& qdsKey, const std::string& branch,
                        const std::string& local, const std::string& country, const std::string& qds) {
        EXPECT_EQ(UserValue(localKey, kBranchIdValue), branch);
        EXPECT_EQ(UserValue(localKey, L"133"), local);
        EXPECT_EQ(UserValue(localKey, L"10021"), local);
        EXPECT_EQ(UserValue(qdsKey, kServerCountryValue), country);
        EXPECT_EQ(UserValue(qdsKey, L"133"), qds);
        EXPECT_EQ(UserValue(qdsKey, L"10021"), qds);
    }
    std::unique_ptr<TlsTestServer> server_;
};

TEST_F(RefreshTest, FirstRefreshWithoutNetworkWritesTheSaleCountrysLocalVersionsAndTheDefault) {
    profile().region = {"US", "DE", "de-DE"};
    ApplyProfile();
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    // Installed 11.0.0.1 in DE: the 11.0.0.0 entry.
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "23", "20220301", "de",
                   "20190815");
    EXPECT_FALSE(UserKeyExists(kWithLoginLocalVersionKey));
    EXPECT_FALSE(UserValue(kAgreementServiceKey, kServerUpdatedFlagValue).has_value());
    EXPECT_TRUE(Logged("GetLatestVersion failed, set QDSversion = 20190815"));
    EXPECT_TRUE(Logged("branch id is 0, qds version is 20190815"));
}

TEST_F(RefreshTest, DefaultRefreshWhileLoggedInWritesBothStates) {
    SetLoggedIn(true);
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    ExpectVersions(kWithLoginLocalVersionKey, kWithLoginQdsVersionKey, "21", "20220615", "cn", "20190815");
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "21", "20220615", "cn",
                   "20190815");
}

TEST_F(RefreshTest, ServerSayingTheDefaultTakesTheSamePathWithoutSettingTheFlag) {
    ConnectServer();
    ServeVersions({{0, Version("20190815")}});
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    EXPECT_EQ(BranchesAsked(), std::vector<int>{0});
    EXPECT_FALSE(Logged("GetLatestVersion failed"));
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "21", "20220615", "cn",
                   "20190815");
    EXPECT_FALSE(UserValue(kAgreementServiceKey, kServerUpdatedFlagValue).has_value());
}

TEST_F(RefreshTest, NewerServerVersionOnTheFirstEntrySetsTheFlagAndWritesIt) {
    ConnectServer();
    ServeVersions({{0, Version("20220615")}, {21, Version("20220615")}});
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    EXPECT_EQ(BranchesAsked(), (std::vector<int>{0, 21}));
    EXPECT_EQ(UserValue(kAgreementServiceKey, kServerUpdatedFlagValue), "1");
    EXPECT_TRUE(Logged("set status : qds server update"));
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "21", "20220615", "cn",
                   "20220615");
    EXPECT_TRUE(ExplainPrivacyXml::CompareLocalAndQdsVersion());
}

TEST_F(RefreshTest, ServerVersionOfTheSecondEntryMakesItsBranchTheOneWritten) {
    SetLoggedIn(true);
    ConnectServer();
    ServeVersions({{0, Version("20200910")}, {21, Version("20200910")}, {11, Version("20200910")}});
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    EXPECT_EQ(BranchesAsked(), (std::vector<int>{0, 21, 11}));
    ExpectVersions(kWithLoginLocalVersionKey, kWithLoginQdsVersionKey, "11", "20200910", "cn", "20200910");
    EXPECT_FALSE(UserKeyExists(kWithoutLoginLocalVersionKey));
}

TEST_F(RefreshTest, Code1011WalksEveryEntryAndWritesTheFirstWithServerZero) {
    ConnectServer();
    ServeVersions({{0, Version("20240301")}});
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1011);
    EXPECT_EQ(BranchesAsked(), (std::vector<int>{0, 21, 11, 1}));
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "21", "20220615", "cn", "0");
    EXPECT_FALSE(ExplainPrivacyXml::CompareLocalAndQdsVersion());
    EXPECT_TRUE(Logged("ERROR The local version and QDS version are not the same "));
}

TEST_F(RefreshTest, MalformedReplyInTheWalkWritesTheLocalVersionAsTheServers) {
    ConnectServer();
    server_->SetHandler([this](const TlsExchange&) {
        return server_->RequestCount() == 1 ? TlsReply::Json(Version("20240301")) : TlsReply::Json("{oops");
    });
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 400);
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "21", "20220615", "cn",
                   "20220615");
}

TEST_F(RefreshTest, OnceTheFlagIsSetNoNetworkEndsTheWalkWithCode2) {
    SetServerUpdated(true);
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 2);
    EXPECT_TRUE(Logged("QDS returned unknown error : 2"));
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "21", "20220615", "cn", "0");
    EXPECT_EQ(UserValue(kAgreementServiceKey, kServerUpdatedFlagValue), "1");
}

TEST_F(RefreshTest, EmptyVersionInfoSetsTheFlagAndTheWalkGoesOn) {
    ConnectServer();
    ServeVersions({{0, R"({"errorCode":0,"versionInfo":[]})"}, {21, Version("20220615")}});
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    EXPECT_EQ(UserValue(kAgreementServiceKey, kServerUpdatedFlagValue), "1");
    EXPECT_EQ(UserValue(kWithoutLoginQdsVersionKey, L"10021"), "20220615");
}

TEST_F(RefreshTest, CountryMissingFromTheBrandUsesCommonButWritesItsOwnCountry) {
    profile().region = {"FR", "FR", "fr-FR"};
    ApplyProfile();
    SetServerUpdated(true);
    ConnectServer();
    ServeVersions({{0, Version("20220101")}, {20, Version("20220101")}});
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    ExpectVersions(kWithoutLoginLocalVersionKey, kWithoutLoginQdsVersionKey, "20", "20220101", "fr",
                   "20220101");
}

TEST_F(RefreshTest, IllegalBranchInTheWalkIsALocalFailure) {
    InstallPrivacyDocument(
        R"(<p><brand name="zorvane"><country name="CN">)"
        R"(<PRIVACY><tessalink_version>1</tessalink_version><privacy_version>7</privacy_version>)"
        R"(<branch_id>b4</branch_id></PRIVACY>)"
        R"(<PRIVACY><tessalink_version>0</tessalink_version><privacy_version>6</privacy_version>)"
        R"(<branch_id>bbb</branch_id></PRIVACY></country></brand></p>)");
    ConnectServer();
    ServeVersions({{0, Version("5")}});
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1102);
    EXPECT_EQ(BranchesAsked(), (std::vector<int>{0, 4}));
}

TEST_F(RefreshTest, DeviceOfNoKnownBrandFailsLocally) {
    SetBrand("Other");
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1102);
    EXPECT_TRUE(Logged("get version from privacy node failed"));
    EXPECT_FALSE(UserKeyExists(kWithoutLoginLocalVersionKey));
}

TEST_F(RefreshTest, BadPrivacyFilesFailBeforeAnyRequest) {
    ConnectServer();
    std::filesystem::remove(PrivacyDocumentPath());
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1102);
    EXPECT_TRUE(Logged("WARN DecryXmlFile failed(ExplainPrivacyXml::GetTessalinkPrivacyContent)"));
    EXPECT_TRUE(Logged("WARN get content failed(ExplainPrivacyXml::InitPrivacy)"));

    InstallRawPrivacyFile(std::string(300, 'x'));
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1102);

    InstallPrivacyDocument("<privacy><brand name=\"zorvane\"></privacy>");
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1102);
    EXPECT_TRUE(Logged("readXmlFile failed"));

    EXPECT_EQ(server_->RequestCount(), 0u);
    EXPECT_FALSE(UserKeyExists(kAgreementServiceKey));
}

TEST_F(RefreshTest, RefreshThenDecisionAcrossANewerServerVersion) {
    // The daily round: the short-cut is cleared, the refresh runs, and the decision reads the result.
    AgreementSign::SetAgreeCache(true);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);
    AgreementSign::SetAgreeCache(false);
    ASSERT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 0);

    AgreementService::GetInstance()->SetRecordWithoutLogin();
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), -1);

    ConnectServer();
    ServeVersions({{0, Version("20240301")}, {21, Version("20240301")}, {31, Version("20240301")}});
    SetAppVersion("12.0.0.3");
    ASSERT_EQ(ExplainPrivacyXml::InitPrivacy(), 0);
    EXPECT_EQ(AgreementSign::JudgeAgreementSign(), 1);
}

TEST(ShippedDocument, BuildMadeTheDocumentFromItsReadableSource) {
    const std::string plain = DecryXmlFile(DE::ANSIToUnicode(
        std::string(QLB_PROGRAM_DIR) + "/config/local_config/tessalink_privacy_v1.1_new.dat"));
    EXPECT_EQ(plain, ShippedPrivacyXml());
}

}  // namespace
}  // namespace qlb::consent::testing
