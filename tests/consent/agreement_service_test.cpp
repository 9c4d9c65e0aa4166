// The agreement server client: requests as the server sees them over HTTPS, and the reply analysers.

#include <gtest/gtest.h>

#include <memory>

#include "consent/agreement_service.h"
#include "consent/consent_keys.h"
#include "runtime/common/app_paths.h"
#include "support/consent_test_env.h"
#include "support/consent_test_peer.h"

namespace qlb::consent::testing {
namespace {

using qlb::testing::HttpExchange;
using qlb::testing::HttpReply;

class AgreementServerTest : public ConsentTest {
  protected:
    void SetUp() override {
        ConsentTest::SetUp();
        StartServer();
        ConnectServer();
    }
    void Answer(std::string body, int status = 200) {
        server().SetHandler([=](const HttpExchange&) { return HttpReply{status, body, {}}; });
    }
    AgreementService& service() { return *AgreementService::GetInstance(); }
};

TEST_F(AgreementServerTest, VersionRequestIsJsonWithSortedKeysAndTheCountryInForce) {
    // Before the server has spoken the sale country is asked for, then the service country; the branch
    // goes through atoi, so a letter prefix gives 0.
    const struct {
        bool serverUpdated;
        std::string branch;
        std::string body;
    } cases[] = {
        {false, "21",
         R"({"agrInfo":[{"agrType":133,"branchId":21,"country":"fr"},{"agrType":10021,"branchId":21,"country":"fr"}]})"},
        {true, "b7",
         R"({"agrInfo":[{"agrType":133,"branchId":0,"country":"de"},{"agrType":10021,"branchId":0,"country":"de"}]})"},
    };
    profile().region = {"DE", "FR", "fr-FR"};
    ApplyProfile();
    Answer(
        R"({"errorCode":0,"versionInfo":[{"agrType":133,"latestVersion":20220615},{"agrType":10021,"latestVersion":20240301}]})");
    for (const auto& item : cases) {
        SCOPED_TRACE(item.branch);
        SetServerUpdated(item.serverUpdated);
        std::string version = "untouched";
        EXPECT_EQ(service().GetLatestVersion(item.branch, version), 0);
        EXPECT_EQ(version, "20240301");
        const HttpExchange request = server().Requests().back();
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.target, "/user/getVersion");
        EXPECT_EQ(request.Header("content-type"), "application/json");
        EXPECT_EQ(request.Header("charset"), "UTF-8");
        EXPECT_EQ(request.body, item.body);
    }
}

TEST_F(AgreementServerTest, NoHostGives2WithoutARequest) {
    profile().services.clear();
    ApplyProfile();
    std::string version;
    EXPECT_EQ(service().GetLatestVersion("1", version), 2);
    EXPECT_EQ(service().AgreementSign("token"), 2);
    EXPECT_EQ(service().GetSignRecord("token"), 2);
    EXPECT_EQ(server().RequestCount(), 0u);
    EXPECT_TRUE(Logged("WARN can not get serverHost from rlx(AgreementService::GetServerHost)"));
}

TEST_F(AgreementServerTest, FailedExchangesAreOneAttemptEachAndGive400) {
    std::string version = "kept";
    Answer("not json");
    EXPECT_EQ(service().GetLatestVersion("1", version), 400);
    Answer("", HttpReply::kHoldWithoutReply);  // bounded by the timeout
    EXPECT_EQ(service().GetLatestVersion("1", version), 400);
    EXPECT_TRUE(Logged("return code: 28 count:0(AgreementService::SendRequest)"));
    EXPECT_FALSE(Logged("count:1"));
    EXPECT_EQ(version, "kept");
}

TEST_F(AgreementServerTest, SignIsAFormWithTokenAndRequestEncoded) {
    SetServerUpdated(true);
    SetUserValue(kWithLoginLocalVersionKey, kBranchIdValue, "21");
    Answer(R"({"errorCode":0})");
    EXPECT_EQ(service().AgreementSign("to ken&=/+"), 0);

    const HttpExchange request = server().Requests().at(0);
    EXPECT_EQ(request.target, "/");
    EXPECT_EQ(request.Header("content-type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(request.Header("charset"), "UTF-8");
    EXPECT_EQ(
        request.body,
        "nsp_svc=as.user.sign&access_token=to%20ken%26%3D%2F%2B&request=" +
            LogUtil::UrlEncode(
                R"({"signInfo":[{"agrType":133,"branchId":21,"country":"cn","isAgree":true,"language":"zh-cn"},)"
                R"({"agrType":10021,"branchId":21,"country":"cn","isAgree":true,"language":"zh-cn"}]})"));
}

TEST_F(AgreementServerTest, SignWithoutAReplyGivesTheTransportCodeAndAFailedStatusStillCarriesItsError) {
    Answer("", HttpReply::kCloseWithoutReply);
    EXPECT_EQ(service().AgreementSign("t"), 52);  // an empty reply from the server
    EXPECT_EQ(service().GetSignRecord("t"), 400);
    Answer(R"({"errorCode":77})", 500);
    EXPECT_EQ(service().AgreementSign("t"), 77);
}

TEST_F(AgreementServerTest, QueryStoresMatchingRecordsOfTheLoggedInAccount) {
    SetLoggedIn(true);
    SetServerUpdated(true);
    Answer(R"({"errorCode":0,"signInfo":[)"
           R"({"agrType":133,"version":20240301,"branchId":31,"country":"cn"},)"
           R"({"agrType":10021,"version":20240302,"branchId":32,"country":"CN"},)"
           R"({"agrType":555,"version":1,"branchId":1,"country":"cn"}]})");
    EXPECT_EQ(service().GetSignRecord("token"), 0);
    EXPECT_EQ(server().Requests().at(0).body.rfind("nsp_svc=as.user.query&access_token=token&request=", 0),
              0u);
    EXPECT_EQ(UserValue(kRecordWithLoginKey, L"133"), "20240301");
    // The server's country is not lower-cased: "CN" is another market and is passed over.
    EXPECT_FALSE(UserValue(kRecordWithLoginKey, L"10021").has_value());
    EXPECT_EQ(UserValue(kRecordWithLoginKey, kBranchIdValue), "31");
    EXPECT_FALSE(UserValue(kRecordWithLoginKey, L"555").has_value());
}

class ReplyAnalysisTest : public ConsentTest {};

TEST_F(ReplyAnalysisTest, ErrorCodeMustBeAnIntegerOfAnObject) {
    const std::pair<const char*, int> cases[] = {
        {R"({"errorCode":0})", 0},
        {R"({"errorCode":-5})", -5},
        {R"({"errorCode":4294967295})", -1},
        {R"({"errorCode":true})", 400},
        {"not json", 400},
        {"[1,2]", 400},
        {"{}", 400},
        {R"({"errorCode":"0"})", 400},
        {R"({"errorCode":0.5})", 400},
        {"{\"errorCode\":0", 400},
    };
    for (const auto& [reply, code] : cases) {
        EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode(reply), code) << reply;
    }
    EXPECT_TRUE(
        Logged("ERROR parse interval info to json failed.\n(AgreementService::AnalyzeResponseErrorCode)"));
}

TEST_F(ReplyAnalysisTest, VersionIsTheLastElementsWhateverItsType) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"versionInfo":[{"agrType":10021,"latestVersion":2},{"agrType":133,"latestVersion":1}]})", "1"},
        {R"({"versionInfo":[]})", ""},
        {R"({"versionInfo":[{"agrType":133,"latestVersion":"1"}]})", ""},
        {R"({"versionInfo":[7]})", ""},
        {R"({"versionInfo":[{"agrType":133}]})", ""},
    };
    for (const auto& [reply, version] : cases) {
        EXPECT_EQ(AgreementService::GetInstance()->AnalyzeVersionResponse(reply), version) << reply;
    }
    EXPECT_TRUE(Logged("ERROR components not exist(AgreementService::AnalyzeVersionResponse)"));
    EXPECT_TRUE(Logged("ERROR get compoments value fail(AgreementService::AnalyzeVersionResponse)"));
}

TEST_F(ReplyAnalysisTest, RecordReplyOfTheWrongShapeIs400AndWritesNothingFurther) {
    SetLoggedIn(true);
    SetServerUpdated(true);
    EXPECT_EQ(ConsentTestPeer::AnalyzeRecordResponse(R"({"errorCode":9})"), 9);
    EXPECT_EQ(ConsentTestPeer::AnalyzeRecordResponse(R"({"errorCode":0})"), 400);
    EXPECT_EQ(ConsentTestPeer::AnalyzeRecordResponse(R"({"errorCode":0,"signInfo":[]})"), 0);
    EXPECT_EQ(ConsentTestPeer::AnalyzeRecordResponse(
                  R"({"errorCode":0,"signInfo":[{"agrType":133,"version":5,"branchId":1,"country":"cn"},)"
                  R"({"agrType":10021,"version":"6","branchId":1,"country":"cn"}]})"),
              400);
    // The first element was stored before the second one failed.
    EXPECT_EQ(UserValue(kRecordWithLoginKey, L"133"), "5");
    EXPECT_FALSE(UserValue(kRecordWithLoginKey, L"10021").has_value());
}

TEST(UrlHelpers, UrlEncodeKeepsUnreservedAndEncodesTheRest) {
    EXPECT_EQ(LogUtil::UrlEncode("aZ09-_.~"), "aZ09-_.~");
    EXPECT_EQ(LogUtil::UrlEncode("{\"a\":1} é"), "%7B%22a%22%3A1%7D%20%C3%A9");
}

}  // namespace
}  // namespace qlb::consent::testing
