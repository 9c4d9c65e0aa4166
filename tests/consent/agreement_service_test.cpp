// The agreement server client: requests as the server sees them over HTTPS, and the reply analysers.

#include <gtest/gtest.h>

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <memory>

#include "consent/agreement_service.h"
#include "consent/consent_keys.h"
#include "runtime/common/app_paths.h"
#include "runtime/http/url_loader.h"
#include "support/consent_test_env.h"
#include "support/consent_test_peer.h"
#include "support/tls_test_server.h"

namespace qlb::consent::testing {
namespace {

using nlohmann::json;

// Form fields of a sign or query body, decoded.
std::map<std::string, std::string> DecodeForm(const std::string& body) {
    std::map<std::string, std::string> fields;
    CURL* curl = curl_easy_init();
    std::size_t start = 0;
    while (start <= body.size()) {
        auto end = body.find('&', start);
        if (end == std::string::npos) {
            end = body.size();
        }
        const std::string pair = body.substr(start, end - start);
        const auto eq = pair.find('=');
        int length = 0;
        char* value =
            curl_easy_unescape(curl, pair.c_str() + eq + 1, static_cast<int>(pair.size() - eq - 1), &length);
        fields[pair.substr(0, eq)] = std::string(value, static_cast<std::size_t>(length));
        curl_free(value);
        start = end + 1;
    }
    curl_easy_cleanup(curl);
    return fields;
}

class AgreementServerTest : public ConsentTest {
  protected:
    void SetUp() override {
        ConsentTest::SetUp();
        server_ = std::make_unique<TlsTestServer>(dir());
        ASSERT_TRUE(server_->ok());
        profile().services[kAgreementServiceName] = {{kRlxKeyRoot, server_->BaseUrl() + "/"},
                                                     {kRlxKeyCommonApi, server_->BaseUrl()}};
        profile().caFile = server_->CertificateFile();
        ApplyProfile();
    }
    void TearDown() override {
        server_.reset();
        ConsentTest::TearDown();
    }
    void Answer(std::string body) {
        server_->SetHandler([body](const TlsExchange&) { return TlsReply::Json(body); });
    }
    AgreementService& service() { return *AgreementService::GetInstance(); }
    std::unique_ptr<TlsTestServer> server_;
};

TEST_F(AgreementServerTest, VersionRequestIsJsonWithSortedKeysAndTheSaleCountry) {
    profile().region = {"DE", "FR", "fr-FR"};
    ApplyProfile();
    Answer(
        R"({"errorCode":0,"versionInfo":[{"agrType":133,"latestVersion":20220615},{"agrType":10021,"latestVersion":20240301}]})");
    std::string version = "untouched";
    EXPECT_EQ(service().GetLatestVersion("21", version), 0);
    EXPECT_EQ(version, "20240301");

    ASSERT_EQ(server_->RequestCount(), 1u);
    const TlsExchange request = server_->Requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/user/getVersion");
    EXPECT_EQ(request.Header("content-type"), "application/json");
    EXPECT_EQ(request.Header("charset"), "UTF-8");
    EXPECT_EQ(
        request.body,
        R"({"agrInfo":[{"agrType":133,"branchId":21,"country":"fr"},{"agrType":10021,"branchId":21,"country":"fr"}]})");
}

TEST_F(AgreementServerTest, OnceTheServerSpokeRequestsUseTheServiceCountry) {
    SetServerUpdated(true);
    profile().region = {"DE", "FR", "fr-FR"};
    ApplyProfile();
    std::string version;
    service().GetLatestVersion("b7", version);
    ASSERT_TRUE(server_->WaitForRequests(1));
    const json body = json::parse(server_->Requests()[0].body);
    EXPECT_EQ(body["agrInfo"][0]["country"], "de");
    // The branch goes through atoi: a letter prefix gives 0.
    EXPECT_EQ(body["agrInfo"][0]["branchId"], 0);
}

TEST_F(AgreementServerTest, VersionElementWithoutLatestVersionGivesAnEmptyVersion) {
    Answer(R"({"errorCode":0,"versionInfo":[{"agrType":133}]})");
    std::string version = "kept";
    EXPECT_EQ(service().GetLatestVersion("1", version), 0);
    EXPECT_EQ(version, "");
    EXPECT_TRUE(Logged("ERROR get compoments value fail(AgreementService::AnalyzeVersionResponse)"));
}

TEST_F(AgreementServerTest, MalformedRepliesGive400) {
    for (const char* reply : {"", "not json", "[1,2]", "{}", R"({"errorCode":"0"})", R"({"errorCode":0.5})",
                              R"({"errorCode":null})", "{\"errorCode\":0"}) {
        Answer(reply);
        std::string version = "kept";
        EXPECT_EQ(service().GetLatestVersion("1", version), 400) << reply;
        EXPECT_EQ(version, "kept") << reply;
    }
    EXPECT_TRUE(
        Logged("ERROR parse interval info to json failed.\n(AgreementService::AnalyzeResponseErrorCode)"));
}

TEST_F(AgreementServerTest, NoHostGives2WithoutARequest) {
    profile().services.clear();
    ApplyProfile();
    std::string version;
    EXPECT_EQ(service().GetLatestVersion("1", version), 2);
    EXPECT_EQ(service().AgreementSign("token"), 2);
    EXPECT_EQ(service().GetSignRecord("token"), 2);
    EXPECT_EQ(server_->RequestCount(), 0u);
    EXPECT_TRUE(Logged("WARN can not get serverHost from rlx(AgreementService::GetServerHost)"));
}

TEST_F(AgreementServerTest, RefusedConnectionIsOneAttemptAndA400) {
    profile().services[kAgreementServiceName][kRlxKeyCommonApi] =
        "https://127.0.0.1:" + std::to_string(UnusedLoopbackPort());
    ApplyProfile();
    std::string version;
    EXPECT_EQ(service().GetLatestVersion("1", version), 400);
    EXPECT_TRUE(Logged("count:0(AgreementService::SendRequest)"));
    EXPECT_FALSE(Logged("count:1"));
}

TEST_F(AgreementServerTest, HangingHostIsBoundedByTheTimeout) {
    server_->SetHandler([](const TlsExchange&) { return TlsReply::Hang(); });
    std::string version = "kept";
    EXPECT_EQ(service().GetLatestVersion("1", version), 400);
    EXPECT_EQ(version, "kept");
    EXPECT_TRUE(Logged("return code: 28 count:0"));
}

TEST_F(AgreementServerTest, SignIsAFormWithTokenAndRequestEncoded) {
    SetServerUpdated(true);
    SetUserValue(kWithLoginLocalVersionKey, kBranchIdValue, "21");
    Answer(R"({"errorCode":0})");
    EXPECT_EQ(service().AgreementSign("to ken&=/+"), 0);

    ASSERT_EQ(server_->RequestCount(), 1u);
    const TlsExchange request = server_->Requests()[0];
    EXPECT_EQ(request.target, "/");
    EXPECT_EQ(request.Header("content-type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(request.Header("charset"), "UTF-8");
    EXPECT_EQ(request.body.rfind("nsp_svc=as.user.sign&access_token=to%20ken%26%3D%2F%2B&request=", 0), 0u);
    const auto form = DecodeForm(request.body);
    EXPECT_EQ(
        form.at("request"),
        R"({"signInfo":[{"agrType":133,"branchId":21,"country":"cn","isAgree":true,"language":"zh-cn"},)"
        R"({"agrType":10021,"branchId":21,"country":"cn","isAgree":true,"language":"zh-cn"}]})");
}

TEST_F(AgreementServerTest, SignWithSendFailureAndNoReplyGivesTheHttpCode) {
    server_->SetHandler([](const TlsExchange&) { return TlsReply::Close(); });
    EXPECT_EQ(service().AgreementSign("t"), 52);  // an empty reply from the server
    EXPECT_EQ(service().GetSignRecord("t"), 400);
}

TEST_F(AgreementServerTest, SignReplyErrorIsReadEvenWithAFailedStatus) {
    server_->SetHandler([](const TlsExchange&) {
        return TlsReply{TlsReply::Mode::Reply, 500, R"({"errorCode":77})"};
    });
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
    const auto form = DecodeForm(server_->Requests().at(0).body);
    EXPECT_EQ(form.at("nsp_svc"), "as.user.query");
    EXPECT_EQ(form.at("access_token"), "token");
    EXPECT_EQ(UserValue(kRecordWithLoginKey, L"133"), "20240301");
    // The server's country is not lower-cased: "CN" is another market and is passed over.
    EXPECT_FALSE(UserValue(kRecordWithLoginKey, L"10021").has_value());
    EXPECT_EQ(UserValue(kRecordWithLoginKey, kBranchIdValue), "31");
    EXPECT_FALSE(UserValue(kRecordWithLoginKey, L"555").has_value());
}

class ReplyAnalysisTest : public ConsentTest {};

TEST_F(ReplyAnalysisTest, ErrorCodeMustBeAnIntegerOfAnObject) {
    EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode(R"({"errorCode":0})"), 0);
    EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode(R"({"errorCode":-5})"), -5);
    EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode(R"({"errorCode":4294967295})"), -1);
    EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode(R"({"errorCode":true})"), 400);
    EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode(R"({"errorCode":[0]})"), 400);
    EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode("0"), 400);
    EXPECT_EQ(ConsentTestPeer::AnalyzeResponseErrorCode(""), 400);
}

TEST_F(ReplyAnalysisTest, VersionIsTheLastElementsWhateverItsType) {
    auto& service = *AgreementService::GetInstance();
    EXPECT_EQ(
        service.AnalyzeVersionResponse(
            R"({"versionInfo":[{"agrType":10021,"latestVersion":2},{"agrType":133,"latestVersion":1}]})"),
        "1");
    EXPECT_EQ(service.AnalyzeVersionResponse(R"({"versionInfo":[]})"), "");
    EXPECT_EQ(service.AnalyzeVersionResponse(R"({"versionInfo":{}})"), "");
    EXPECT_EQ(service.AnalyzeVersionResponse(R"({"versionInfo":[{"agrType":133,"latestVersion":"1"}]})"), "");
    EXPECT_EQ(service.AnalyzeVersionResponse(R"({"versionInfo":[7]})"), "");
    EXPECT_TRUE(Logged("ERROR components not exist(AgreementService::AnalyzeVersionResponse)"));
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
    EXPECT_EQ(LogUtil::UrlEncode(""), "");
}

TEST(UrlHelpers, LoaderStartsAndStopsItsThreadOnce) {
    UrlLoader& loader = UrlLoader::GetInstance();
    loader.Stop();
    EXPECT_FALSE(loader.IsRunning());
    loader.Start();
    loader.Start();
    EXPECT_TRUE(loader.IsRunning());
    loader.Stop();
    EXPECT_FALSE(loader.IsRunning());
}

}  // namespace
}  // namespace qlb::consent::testing
