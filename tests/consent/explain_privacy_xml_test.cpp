// The privacy configuration: the version helpers, the entry walk, and whole refreshes against a local
// HTTPS agreement server.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>

#include "consent/consent_keys.h"
#include "consent/explain_privacy_xml.h"
#include "consent/table_cipher.h"
#include "runtime/common/strings.h"
#include "runtime/xml/zv_xml.h"
#include "support/consent_test_env.h"
#include "support/consent_test_peer.h"

namespace qlb::consent::testing {
namespace {

using nlohmann::json;
using qlb::testing::HttpExchange;
using qlb::testing::HttpReply;

TEST(VersionHelpers, KindSuffixIsCutAndWhatIsLeftMustBeDigitsBetweenDots) {
    const struct {
        std::string version;
        std::string cut;
        bool valid;
    } cases[] = {
        {"11.0.0.1(C233)", "11.0.0.1", false},
        {"11.0.0.1", "11.0.0.1", true},
        {"(x)", "", false},
        {"0", "0", true},
        {"1..2", "1..2", true},
        {"1.-2", "1.-2", false},
        {"1.2 ", "1.2 ", false},
    };
    for (const auto& item : cases) {
        std::string version = item.version;
        ExplainPrivacyXml::VerSplitKind(version);
        EXPECT_EQ(version, item.cut);
        EXPECT_EQ(ExplainPrivacyXml::IsVersionValid(item.version), item.valid) << item.version;
    }
}

TEST(VersionHelpers, LeadingLowerCaseBsAreDroppedFromBranchIds) {
    const struct {
        std::string branch;
        bool ok;
        std::string after;
    } cases[] = {{"b12", true, "12"}, {"bb7b", true, "7b"},  {"12", true, "12"},
                 {"B3", true, "B3"},  {"bbb", false, "bbb"}, {"", false, ""}};
    for (const auto& item : cases) {
        std::string branch = item.branch;
        EXPECT_EQ(ExplainPrivacyXml::SplitBFromBranchId(branch), item.ok) << item.branch;
        EXPECT_EQ(branch, item.after);
    }
}

TEST(VersionHelpers, VersionsCompareFieldByFieldAsNumbers) {
    const struct {
        const char* a;
        const char* b;
        int order;  // 0 equal, 1 a newer, 2 b newer
    } cases[] = {{"1.2", "1.2.0", 0}, {"1.10", "1.9", 1},   {"1.9", "1.10", 2}, {"11.0.0.1", "0", 1},
                 {"", "", 0},         {"1..3", "1.0.3", 0}, {"2", "10", 2},     {"99999999999999", "1", 1}};
    for (const auto& item : cases) {
        EXPECT_EQ(ExplainPrivacyXml::PCVersionCompare(item.a, item.b), item.order) << item.a << " " << item.b;
    }
}

TEST_F(ConsentTest, BrandFollowsTheVendorInLowerCase) {
    SetBrand("LUMIRA");
    EXPECT_EQ(ExplainPrivacyXml::GetBrand(), "lumira");
}

// The entry walk over the shipped document.
class PrivacyNodeTest : public ConsentTest {
  protected:
    void SetUp() override {
        ConsentTest::SetUp();
        ASSERT_EQ(document_.Parse(ShippedPrivacyXml()), 0);
    }
    ZvXMLDocument document_;
};

TEST_F(PrivacyNodeTest, FirstEntryNotAboveTheInstalledVersionApplies) {
    const struct {
        const char* brand;
        const char* version;
        const char* country;
        const char* branch;  // "null" when no entry applies
    } cases[] = {
        {"zorvane", "12.1", "CN", "b31"},
        {"zorvane", "12.0.0.0", "CN", "b31"},
        {"zorvane", "11.9", "CN", "b21"},
        {"zorvane", "3", "CN", "b1"},
        {"lumira", "11.2.0.0", "JP", "b52"},
        // The country and the brand are compared exactly.
        {"zorvane", "11.0", "cn", "null"},
        {"zorvane", "11.0", "FR", "null"},
        {"Zorvane", "11.0", "CN", "null"},
        // Invalid input.
        {"", "11.0", "CN", "null"},
        {"zorvane", "11.0(x)", "CN", "null"},
        {"zorvane", "11.0", "", "null"},
    };
    for (const auto& item : cases) {
        const ZvXmlElement node = ConsentTestPeer::InitLocalVersionAndBranchId(
            document_.RootElement(), item.brand, item.version, item.country);
        EXPECT_EQ(node.IsElementNull() ? "null" : node.FirstNode("branch_id").Value(), item.branch)
            << item.brand << " " << item.version << " " << item.country;
    }
    EXPECT_TRUE(Logged("InitPrivacyVersionAndBranchId failed"));
    EXPECT_TRUE(Logged("WARN Invalid input (ExplainPrivacyXml::InitLocalVersionAndBranchId)"));
}

TEST_F(PrivacyNodeTest, BrokenElementsEndTheWalkWithTheirLogLines) {
    const std::pair<const char*, const char*> cases[] = {
        {R"(<p><brand/><brand name="zorvane"/></p>)", "find brandNameAttribute name failed"},
        {R"(<p><brand name="zorvane"><country name="CN"><PRIVACY/></country></brand></p>)",
         "get pcVersionNode failed"},
        {R"(<p><brand name="zorvane"><country/><country name="CN"/></brand></p>)", ""},
    };
    for (const auto& [xml, line] : cases) {
        ZvXMLDocument doc;
        ASSERT_EQ(doc.Parse(xml), 0);
        EXPECT_TRUE(ConsentTestPeer::InitLocalVersionAndBranchId(doc.RootElement(), "zorvane", "1", "CN")
                        .IsElementNull())
            << xml;
        EXPECT_TRUE(Logged(line)) << line;
    }
}

// Whole refreshes of the shipped document, installed 11.0.0.1 on a zorvane device.
class RefreshTest : public ConsentTest {
  protected:
    void SetUp() override {
        ConsentTest::SetUp();
        InstallPrivacyDocument(ShippedPrivacyXml());
        StartServer();
    }
    // "branch=reply ...": the server answers each branch id it is asked for with the reply, a bare version
    // number standing for both agreements at that version; a branch it does not know gets 1011.
    void ServeVersions(const std::string& table) {
        std::map<int, std::string> replies;
        std::istringstream in(table);
        for (std::string item; in >> item;) {
            const auto eq = item.find('=');
            const std::string reply = item.substr(eq + 1);
            replies[std::stoi(item.substr(0, eq))] =
                reply[0] == '{' ? reply
                                : R"({"errorCode":0,"versionInfo":[{"agrType":133,"latestVersion":)" + reply +
                                      R"(},{"agrType":10021,"latestVersion":)" + reply + "}]}";
        }
        ConnectServer();
        server().SetHandler([replies](const HttpExchange& request) {
            const json body = json::parse(request.body, nullptr, false);
            const int branch = body.is_discarded() ? -1 : body["agrInfo"][0]["branchId"].get<int>();
            const auto it = replies.find(branch);
            return HttpReply{200, it == replies.end() ? R"({"errorCode":1011})" : it->second, {}};
        });
    }
    // The branch ids asked for, in order: "0 21 11".
    std::string BranchesAsked() {
        std::string branches;
        for (const auto& request : server().Requests()) {
            branches += (branches.empty() ? "" : " ") +
                        std::to_string(json::parse(request.body)["agrInfo"][0]["branchId"].get<int>());
        }
        return branches;
    }
};

enum Written { kWithoutLoginOnly, kLoginOnly, kBothStates };

// One refresh: the machine, the server's answers (null: no host), and what is written for the login
// states; both agreements always get the same version here.
struct Refresh {
    RegionProfile region;
    bool loggedIn;
    bool serverUpdated;
    const char* replies;
    int code;
    const char* branchesAsked;
    Written written;
    const char* branch;
    const char* local;
    const char* country;
    const char* qds;
    const char* updatedFlag;  // the flag afterwards, null when unset
    const char* logLine;
};

const RegionProfile kChina{"CN", "CN", "zh-CN"};
const RegionProfile kSoldToGermany{"US", "DE", "de-DE"};
const RegionProfile kFrance{"FR", "FR", "fr-FR"};

const Refresh kRefreshes[] = {
    // The first refresh without network writes the sale country's local versions and the default.
    {kSoldToGermany, false, false, nullptr, 0, "", kWithoutLoginOnly, "23", "20220301", "de", "20190815",
     nullptr, "GetLatestVersion failed, set QDSversion = 20190815"},
    // The default refresh while logged in writes both states.
    {kChina, true, false, nullptr, 0, "", kBothStates, "21", "20220615", "cn", "20190815", nullptr,
     "branch id is 0, qds version is 20190815"},
    // The server saying the default takes the same path without setting the flag.
    {kChina, false, false, "0=20190815", 0, "0", kWithoutLoginOnly, "21", "20220615", "cn", "20190815",
     nullptr, ""},
    // A newer server version on the first entry sets the flag and is written.
    {kChina, false, false, "0=20220615 21=20220615", 0, "0 21", kWithoutLoginOnly, "21", "20220615", "cn",
     "20220615", "1", "set status : qds server update"},
    // A server version of the second entry makes its branch the one written.
    {kChina, true, false, "0=20200910 21=20200910 11=20200910", 0, "0 21 11", kLoginOnly, "11", "20200910",
     "cn", "20200910", "1", ""},
    // Code 1011 walks every entry and writes the first with server version 0.
    {kChina, false, false, "0=20240301", 1011, "0 21 11 1", kWithoutLoginOnly, "21", "20220615", "cn", "0",
     "1", "ERROR The local version and QDS version are not the same "},
    // A malformed reply in the walk writes the local version as the server's.
    {kChina, false, false, "0=20240301 21={oops", 400, "0 21", kWithoutLoginOnly, "21", "20220615", "cn",
     "20220615", "1", ""},
    // Once the flag is set, no network ends the walk with code 2.
    {kChina, false, true, nullptr, 2, "", kWithoutLoginOnly, "21", "20220615", "cn", "0", "1",
     "QDS returned unknown error : 2"},
    // Empty version info sets the flag and the walk goes on.
    {kChina, false, false, R"(0={"errorCode":0,"versionInfo":[]} 21=20220615)", 0, "0 21", kWithoutLoginOnly,
     "21", "20220615", "cn", "20220615", "1", ""},
    // A country missing from the brand uses the common entries but writes its own country.
    {kFrance, false, true, "0=20220101 20=20220101", 0, "0 20", kWithoutLoginOnly, "20", "20220101", "fr",
     "20220101", "1", ""},
};

class RefreshScenario : public RefreshTest, public ::testing::WithParamInterface<Refresh> {};

TEST_P(RefreshScenario, WritesTheVersionsInForce) {
    const Refresh& item = GetParam();
    profile().region = item.region;
    ApplyProfile();
    if (item.loggedIn) {
        SetLoggedIn(true);
    }
    if (item.serverUpdated) {
        SetServerUpdated(true);
    }
    if (item.replies) {
        ServeVersions(item.replies);
    }
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), item.code);
    EXPECT_EQ(BranchesAsked(), item.branchesAsked);
    for (const bool login : {true, false}) {
        const auto* localKey = login ? kWithLoginLocalVersionKey : kWithoutLoginLocalVersionKey;
        const auto* qdsKey = login ? kWithLoginQdsVersionKey : kWithoutLoginQdsVersionKey;
        if (item.written != kBothStates && login != (item.written == kLoginOnly)) {
            EXPECT_FALSE(UserKeyExists(localKey)) << login;
            continue;
        }
        EXPECT_EQ(UserValue(localKey, kBranchIdValue), item.branch);
        EXPECT_EQ(UserValue(localKey, L"133"), item.local);
        EXPECT_EQ(UserValue(localKey, L"10021"), item.local);
        EXPECT_EQ(UserValue(qdsKey, kServerCountryValue), item.country);
        EXPECT_EQ(UserValue(qdsKey, L"133"), item.qds);
        EXPECT_EQ(UserValue(qdsKey, L"10021"), item.qds);
    }
    EXPECT_EQ(UserValue(kAgreementServiceKey, kServerUpdatedFlagValue),
              item.updatedFlag ? std::optional<std::string>(item.updatedFlag) : std::nullopt);
    EXPECT_EQ(ExplainPrivacyXml::CompareLocalAndQdsVersion(), std::string(item.local) == item.qds);
    EXPECT_TRUE(Logged(item.logLine)) << item.logLine;
}

INSTANTIATE_TEST_SUITE_P(Refreshes, RefreshScenario, ::testing::ValuesIn(kRefreshes));

TEST_F(RefreshTest, IllegalBranchInTheWalkIsALocalFailure) {
    InstallPrivacyDocument(
        R"(<p><brand name="zorvane"><country name="CN">)"
        R"(<PRIVACY><tessalink_version>1</tessalink_version><privacy_version>7</privacy_version>)"
        R"(<branch_id>b4</branch_id></PRIVACY>)"
        R"(<PRIVACY><tessalink_version>0</tessalink_version><privacy_version>6</privacy_version>)"
        R"(<branch_id>bbb</branch_id></PRIVACY></country></brand></p>)");
    ServeVersions("0=5");
    EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1102);
    EXPECT_EQ(BranchesAsked(), "0 4");
    EXPECT_TRUE(Logged("branchId illegalbbb"));
}

TEST_F(RefreshTest, BadPrivacyFileOrUnknownDeviceIsALocalFailure) {
    ConnectServer();
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { std::filesystem::remove(PrivacyDocumentPath()); },
         "WARN DecryXmlFile failed(ExplainPrivacyXml::GetTessalinkPrivacyContent)"},
        {[&] { std::ofstream(PrivacyDocumentPath()) << std::string(300, 'x'); },
         "WARN get content failed(ExplainPrivacyXml::InitPrivacy)"},
        {[&] { InstallPrivacyDocument("<privacy><brand name=\"zorvane\"></privacy>"); },
         "readXmlFile failed"},
        {[&] {
             InstallPrivacyDocument(ShippedPrivacyXml());
             SetBrand("Other");
         },
         "get version from privacy node failed"},
    };
    for (const auto& [breakIt, line] : cases) {
        SCOPED_TRACE(line);
        breakIt();
        EXPECT_EQ(ExplainPrivacyXml::InitPrivacy(), 1102);
        EXPECT_TRUE(Logged(line));
        EXPECT_FALSE(UserKeyExists(kAgreementServiceKey));
    }
    // A bad file fails before any request.
    EXPECT_EQ(server().RequestCount(), 1u);
}

TEST(ShippedDocument, BuildMadeTheDocumentFromItsReadableSource) {
    const std::string plain = DecryXmlFile(DE::ANSIToUnicode(
        std::string(QLB_PROGRAM_DIR) + "/config/local_config/tessalink_privacy_v1.1_new.dat"));
    EXPECT_EQ(plain, ShippedPrivacyXml());
}

}  // namespace
}  // namespace qlb::consent::testing
