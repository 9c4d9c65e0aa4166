#include "consent_test_env.h"

#include <fstream>

#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "privacy_pack.h"
#include "runtime/common/logging.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_types.h"
#include "runtime/http/http_util.h"
#include "runtime/registry/de_registry.h"
#include "runtime/registry/registry_store.h"

namespace qlb::consent::testing {
namespace {

// One log per test process, set up once and kept for all its tests.
const std::filesystem::path& LogDir() {
    static const qlb::testing::TempDir dir;
    static const bool initialised = [] {
        qlb::logging::InitLogger("ConsentTests", std::string(QLB_SOURCE_DIR) + "/config/log4cplus.properties",
                                 dir.Path().string() + "/");
        return true;
    }();
    (void)initialised;
    return dir.Path();
}

}  // namespace

void ConsentTest::SetUp() {
    std::filesystem::create_directories(dir_ / "dmi");
    std::filesystem::create_directories(dir_ / "program/config/local_config");
    profile_.registry = dir_ / "registry.db";
    profile_.appData = dir_ / "appdata/";
    profile_.logDir = LogDir().string() + "/";
    profile_.runDir = dir_ / "run/";
    profile_.dmiDir = dir_ / "dmi";
    profile_.capabilities.plugins = {"QDS"};
    profile_.region = {"CN", "CN", "zh-CN"};
    profile_.appVersion = "11.0.0.1(C233)";
    ApplyProfile();
    SetBrand("ZorVane");

    auto store = qlb::registry::RegistryStore::Open(profile_.registry);
    ASSERT_EQ(store.error, 0u);
    qlb::registry::RegistryStore::SetDefault(store.value);
    SetCurrentUserSidProvider([] { return std::wstring(kTestSid); });
    SetConsentProgramDir(dir_ / "program");
    HttpUtil::SetTimeoutCapForTesting(std::chrono::milliseconds(1500));
    log_ = std::make_unique<qlb::testing::FileTail>(LogDir() / "ConsentTests.log");
}

void ConsentTest::TearDown() {
    server_.reset();
    HttpUtil::SetTimeoutCapForTesting(std::chrono::milliseconds(0));
    SetConsentProgramDir({});
    SetCurrentUserSidProvider({});
    qlb::registry::RegistryStore::SetDefault(nullptr);
    MachineProfile::SetCurrent(MachineProfile{});
}

void ConsentTest::SetBrand(const std::string& sysVendor) {
    std::ofstream(dir_ / "dmi/sys_vendor", std::ios::trunc) << sysVendor << "\n";
}

void ConsentTest::SetUserValue(const std::wstring& path, const std::wstring& name, const std::string& value) {
    ASSERT_TRUE(
        DE::Registry::SetValue(HKEY_USERS, std::wstring(kTestSid) + path, name, DE::ANSIToUnicode(value)));
}

std::optional<std::string> ConsentTest::UserValue(const std::wstring& path, const std::wstring& name) const {
    std::wstring value;
    if (!DE::Registry::GetValue(HKEY_USERS, std::wstring(kTestSid) + path, name, value)) {
        return std::nullopt;
    }
    return DE::UnicodeToANSI(value);
}

bool ConsentTest::UserKeyExists(const std::wstring& path) const {
    DE::Registry registry;
    registry.SetRootKey(HKEY_USERS);
    return registry.KeyExists(std::wstring(kTestSid) + path);
}

void ConsentTest::SetLoggedIn(bool loggedIn) {
    SetUserValue(kAgreementServiceKey, kUserLoginFlagValue, loggedIn ? "1" : "0");
}

void ConsentTest::SetServerUpdated(bool updated) {
    SetUserValue(kAgreementServiceKey, kServerUpdatedFlagValue, updated ? "1" : "0");
}

std::filesystem::path ConsentTest::PrivacyDocumentPath() const {
    return dir_ / "program" / kPrivacyConfigFile;
}

void ConsentTest::InstallPrivacyDocument(const std::string& xml) {
    const auto packed = qlb::privacy::PackDocument(xml, qlb::privacy::HeaderMode::Random);
    ASSERT_TRUE(packed.has_value());
    std::ofstream out(PrivacyDocumentPath(), std::ios::binary | std::ios::trunc);
    out.write(packed->data(), static_cast<std::streamsize>(packed->size()));
    ASSERT_TRUE(out.good());
}

void ConsentTest::StartServer() {
    server_ = std::make_unique<qlb::testing::HttpTestServer>(qlb::testing::HttpTestServer::Handler{}, true);
    profile_.caFile = qlb::testing::HttpTestServer::CertificateFile();
    ApplyProfile();
}

void ConsentTest::ConnectServer() {
    profile_.services[kAgreementServiceName] = {{kRlxKeyRoot, server_->Url("/")},
                                                {kRlxKeyCommonApi, server_->Url("")}};
    ApplyProfile();
}

std::string ShippedPrivacyXml() {
    return qlb::testing::ReadFile(std::filesystem::path(QLB_SOURCE_DIR) /
                                  "config/privacy/tessalink_privacy.xml");
}

}  // namespace qlb::consent::testing
