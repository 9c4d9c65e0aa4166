#include "consent/explain_privacy_xml.h"

#include <chrono>
#include <thread>

#include "consent/account_util.h"
#include "consent/agreement_service.h"
#include "consent/consent_common.h"
#include "consent/consent_context.h"
#include "consent/consent_keys.h"
#include "consent/table_cipher.h"
#include "runtime/common/logging.h"
#include "runtime/common/soft_shelf.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_types.h"
#include "runtime/http/system_info.h"
#include "runtime/registry/de_registry.h"
#include "runtime/smbios/smbios_helper.h"
#include "runtime/xml/zv_xml.h"

using namespace qlb::consent;

namespace {

constexpr char kBrandLumira[] = "lumira";
constexpr char kBrandZorvane[] = "zorvane";

// A document that leads the entry walk into one of its dead ends re-examines the same element for
// ever; the pause keeps that from eating a core.
void PauseBeforeReexamining() {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

bool SetUserValue(const std::wstring& fullKey, const std::wstring& name, const std::string& value) {
    return DE::Registry::SetValue(HKEY_USERS, fullKey, name, DE::ANSIToUnicode(value), KEY_ALL_ACCESS);
}

}  // namespace

std::string ExplainPrivacyXml::GetTessalnkVersion() {
    QuillbarVersionMgr* versionMgr = QuillbarVersionMgr::GetInstance();
    if (versionMgr == nullptr) {
        QLOG_WARN("Faild to create versionMgr");
        return {};
    }
    std::string version = versionMgr->GetAppVersion();
    VerSplitKind(version);
    return version;
}

std::string ExplainPrivacyXml::GetBrand() {
    std::string brand;
    SmBiosHelper* smbios = SmBiosHelper::GetInstance();
    if (smbios->IsLumiraDevice()) {
        brand = kBrandLumira;
    }
    if (smbios->IsZorvaneDevice()) {
        brand = kBrandZorvane;
    }
    return brand;
}

void ExplainPrivacyXml::VerSplitKind(std::string& version) {
    const auto kind = version.find('(');
    if (kind != std::string::npos) {
        version.erase(kind);
    }
}

bool ExplainPrivacyXml::IsVersionValid(const std::string& version) {
    if (version.empty()) {
        return false;
    }
    for (const std::string& field : qlb::Split(version, '.')) {
        for (const char ch : field) {
            if (ch < '0' || ch > '9') {
                return false;
            }
        }
    }
    return true;
}

bool ExplainPrivacyXml::SplitBFromBranchId(std::string& branchId) {
    const auto first = branchId.find_first_not_of('b');
    if (first == std::string::npos) {
        return false;
    }
    branchId.erase(0, first);
    return true;
}

int ExplainPrivacyXml::PCVersionCompare(const std::string& a, const std::string& b) {
    std::size_t posA = 0;
    std::size_t posB = 0;
    // One field of `text` from `pos`, advancing past its '.'; an exhausted string gives 0.
    const auto nextField = [](const std::string& text, std::size_t& pos) {
        if (pos >= text.size()) {
            return 0;
        }
        auto end = text.find('.', pos);
        if (end == std::string::npos) {
            end = text.size();
        }
        const int value = TextToInt(text.substr(pos, end - pos));
        pos = end + 1;
        return value;
    };
    while (posA < a.size() || posB < b.size()) {
        const int fieldA = nextField(a, posA);
        const int fieldB = nextField(b, posB);
        if (fieldA > fieldB) {
            return 1;
        }
        if (fieldA < fieldB) {
            return 2;
        }
    }
    return 0;
}

int ExplainPrivacyXml::GetTessalinkPrivacyContent(std::string& content) {
    QLOG_WARN("configFile is " << kPrivacyConfigFile);
    const std::filesystem::path programDir = ConsentProgramDir();
    if (programDir.empty()) {
        QLOG_WARN("GetSelfFullFilePath failed");
        return kResultLocalFailure;
    }
    const std::filesystem::path fullPath = programDir / kPrivacyConfigFile;
    content = DecryXmlFile(DE::ANSIToUnicode(fullPath.string()));
    if (content.empty()) {
        QLOG_WARN("DecryXmlFile failed");
        return kResultLocalFailure;
    }
    return kResultSuccess;
}

ZvXmlElement ExplainPrivacyXml::InitLocalVersionAndBranchId(const ZvXmlElement& root,
                                                            const std::string& brand,
                                                            const std::string& version,
                                                            const std::string& country) {
    if (!IsVersionValid(version) || country.empty() || brand.empty()) {
        QLOG_WARN("Invalid input ");
        return {};
    }

    ZvXmlElement brandNode = root.FirstNode("brand");
    for (;;) {
        if (brandNode.IsElementNull()) {
            QLOG_WARN("InitPrivacyVersionAndBranchId failed");
            return {};
        }
        const ZvXmlAttribute brandName = brandNode.FirstAttribute("name");
        if (brandName.IsAttributeNull() || brandName.Value().empty()) {
            QLOG_WARN("find brandNameAttribute name failed");
            return {};
        }
        if (brandName.Value() == brand) {
            break;
        }
        brandNode = brandNode.NextSiblingElement("brand");
    }

    ZvXmlElement countryNode = brandNode.FirstNode("country");
    for (;;) {
        if (countryNode.IsElementNull()) {
            // Dead end: a matching brand without any country is examined again, without end.
            PauseBeforeReexamining();
            continue;
        }
        const ZvXmlAttribute countryName = countryNode.FirstAttribute("name");
        if (countryName.IsAttributeNull() || countryName.Value().empty()) {
            return {};
        }
        if (countryName.Value() != country) {
            countryNode = countryNode.NextSiblingElement("country");
            if (countryNode.IsElementNull()) {
                return {};
            }
            continue;
        }
        // Entries stand newest first: the first one not above the installed version applies.
        for (ZvXmlElement entry = countryNode.FirstNode("PRIVACY"); !entry.IsElementNull();
             entry = entry.NextSiblingElement("PRIVACY")) {
            const ZvXmlElement pcVersionNode = entry.FirstNode("tessalink_version");
            if (pcVersionNode.IsElementNull()) {
                QLOG_WARN("get pcVersionNode failed");
                return {};
            }
            const int order = PCVersionCompare(version, pcVersionNode.Value());
            if (order == 0 || order == 1) {
                return entry;
            }
        }
        // Dead end: a matching country without a fitting entry is examined again, without end.
        PauseBeforeReexamining();
    }
}

int ExplainPrivacyXml::GetPrivacyNode(const std::string& country, const ZvXMLDocument& document,
                                      ZvXmlElement& node) {
    const ZvXmlElement root = document.RootElement();
    if (root.IsElementNull()) {
        QLOG_WARN("get root failed");
        return kResultLocalFailure;
    }
    const std::string brand = GetBrand();
    const std::string version = GetTessalnkVersion();
    node = InitLocalVersionAndBranchId(root, brand, version, country);
    if (node.IsElementNull()) {
        node = InitLocalVersionAndBranchId(root, brand, version, kCommonCountry);
    }
    return node.IsElementNull() ? kResultLocalFailure : kResultSuccess;
}

bool ExplainPrivacyXml::GetVersionFromPrivacyNode(const ZvXmlElement& node, std::string& version,
                                                  std::string& branchId) {
    if (node.IsElementNull()) {
        return false;
    }
    const ZvXmlElement versionNode = node.FirstNode("privacy_version");
    const ZvXmlElement branchNode = node.FirstNode("branch_id");
    if (versionNode.IsElementNull() || branchNode.IsElementNull()) {
        return false;
    }
    version = versionNode.Value();
    branchId = branchNode.Value();
    if (!SplitBFromBranchId(branchId)) {
        QLOG_WARN("branchId illegal" << branchId);
        return false;
    }
    return true;
}

int ExplainPrivacyXml::GetLocalVersionAndQDSVersion(const ZvXmlElement& node, std::string& localVersion,
                                                    std::string& qdsVersion, std::string& branchId) {
    if (!GetVersionFromPrivacyNode(node, localVersion, branchId)) {
        return kResultLocalFailure;
    }
    int code = kResultSuccess;
    for (ZvXmlElement entry = node; !entry.IsElementNull(); entry = entry.NextSiblingElement("PRIVACY")) {
        std::string entryVersion;
        std::string entryBranch;
        if (!GetVersionFromPrivacyNode(entry, entryVersion, entryBranch)) {
            return kResultLocalFailure;
        }
        code = AgreementService::GetInstance()->GetLatestVersion(entryBranch, qdsVersion);
        if (code == kResultSuccess) {
            if (entryVersion == qdsVersion) {
                localVersion = entryVersion;
                branchId = entryBranch;
                return kResultSuccess;
            }
            code = kResultNoMatchingVersion;
            continue;
        }
        if (code == kResultNoMatchingVersion) {
            continue;
        }
        if (code == kResultBadReply) {
            qdsVersion = localVersion;
            return kResultBadReply;
        }
        QLOG_WARN("QDS returned unknown error : " << code);
        qdsVersion = "0";
        return code;
    }
    qdsVersion = "0";
    return code;
}

bool ExplainPrivacyXml::WriteLocalVersionToRegedit(const std::string& branchId, const std::string& version,
                                                   const std::wstring& path) {
    if (branchId.empty()) {
        QLOG_WARN("input branchId is empty ");
        return false;
    }
    const std::wstring key = AccountUtil::CreateRegeditPath(path);
    if (!SetUserValue(key, kBranchIdValue, branchId)) {
        return false;
    }
    const bool wrote133 = SetUserValue(key, kUserAgreementValue, version);
    const bool wrote10021 = SetUserValue(key, kPrivacyStatementValue, version);
    return wrote133 && wrote10021;
}

bool ExplainPrivacyXml::WriteQDSVersionToRegedit(const std::string& country, const std::string& version,
                                                 const std::wstring& path) {
    if (country.empty()) {
        QLOG_WARN("input branchId is empty ");
        return false;
    }
    const std::wstring key = AccountUtil::CreateRegeditPath(path);
    if (!SetUserValue(key, kServerCountryValue, country)) {
        return false;
    }
    const bool wrote133 = SetUserValue(key, kUserAgreementValue, version);
    const bool wrote10021 = SetUserValue(key, kPrivacyStatementValue, version);
    return wrote133 && wrote10021;
}

void ExplainPrivacyXml::SetQDSServerStatus(bool updated) {
    const std::wstring key = AccountUtil::CreateRegeditPath(kAgreementServiceKey);
    SetUserValue(key, kServerUpdatedFlagValue, updated ? "1" : "0");
    if (updated) {
        QLOG_WARN("set status : qds server update");
    } else {
        QLOG_WARN("set status : qds server no update");
    }
}

bool ExplainPrivacyXml::GetQDSServerStatus() {
    return IsServerUpdated();
}

bool ExplainPrivacyXml::TemporySolution(const std::string& country, const std::string& qdsVersion,
                                        const ZvXMLDocument& document) {
    ZvXmlElement node;
    (void)GetPrivacyNode(country, document, node);
    std::string localVersion;
    std::string branchId;
    if (!GetVersionFromPrivacyNode(node, localVersion, branchId)) {
        QLOG_WARN("get version from privacy node failed");
        return false;
    }
    const std::string lowerCountry = qlb::ToLowerAscii(country);
    if (IsUserLoggedIn()) {
        const bool result = WriteLocalVersionToRegedit(branchId, localVersion, kWithLoginLocalVersionKey) &&
                            WriteQDSVersionToRegedit(lowerCountry, qdsVersion, kWithLoginQdsVersionKey);
        // The without-login pair follows along so that a log-out finds current values.
        if (WriteLocalVersionToRegedit(branchId, localVersion, kWithoutLoginLocalVersionKey)) {
            (void)WriteQDSVersionToRegedit(lowerCountry, qdsVersion, kWithoutLoginQdsVersionKey);
        }
        return result;
    }
    return WriteLocalVersionToRegedit(branchId, localVersion, kWithoutLoginLocalVersionKey) &&
           WriteQDSVersionToRegedit(lowerCountry, qdsVersion, kWithoutLoginQdsVersionKey);
}

int ExplainPrivacyXml::InitPrivacy() {
    const std::string serviceCountry = SystemInfo::GetCurrentUserServiceCountry();

    std::string content;
    if (GetTessalinkPrivacyContent(content) != kResultSuccess) {
        QLOG_WARN("get content failed");
        return kResultLocalFailure;
    }
    ZvXMLDocument document;
    if (document.Parse(content) != 0) {
        QLOG_WARN("readXmlFile failed");
        return kResultLocalFailure;
    }

    std::string qdsVersion;
    const int code = AgreementService::GetInstance()->GetLatestVersion(kFirstQueryBranchId, qdsVersion);
    if (code != kResultSuccess && !GetQDSServerStatus()) {
        QLOG_WARN("GetLatestVersion failed, set QDSversion = 20190815");
        qdsVersion = kDefaultQdsVersion;
    }
    if (qdsVersion == kDefaultQdsVersion) {
        QLOG_WARN("branch id is 0, qds version is 20190815");
        const std::string saleCountry = SystemInfo::GetSaleCountry();
        return TemporySolution(saleCountry, qdsVersion, document) ? kResultSuccess : kResultLocalFailure;
    }
    if (code == kResultSuccess) {
        // Once the server has given a version of its own the flag stays set.
        SetQDSServerStatus(true);
    }

    ZvXmlElement node;
    if (GetPrivacyNode(serviceCountry, document, node) != kResultSuccess) {
        QLOG_WARN("GetPrivacyNode failed");
        return kResultLocalFailure;
    }
    std::string localVersion;
    std::string branchId;
    const int walkCode = GetLocalVersionAndQDSVersion(node, localVersion, qdsVersion, branchId);

    const std::string lowerCountry = qlb::ToLowerAscii(serviceCountry);
    bool written = false;
    if (IsUserLoggedIn()) {
        written = WriteLocalVersionToRegedit(branchId, localVersion, kWithLoginLocalVersionKey) &&
                  WriteQDSVersionToRegedit(lowerCountry, qdsVersion, kWithLoginQdsVersionKey);
    } else {
        written = WriteLocalVersionToRegedit(branchId, localVersion, kWithoutLoginLocalVersionKey) &&
                  WriteQDSVersionToRegedit(lowerCountry, qdsVersion, kWithoutLoginQdsVersionKey);
    }
    return written ? walkCode : kResultLocalFailure;
}

bool ExplainPrivacyXml::CompareLocalAndQdsVersion() {
    const bool loggedIn = IsUserLoggedIn();
    const wchar_t* localKey = loggedIn ? kWithLoginLocalVersionKey : kWithoutLoginLocalVersionKey;
    const wchar_t* qdsKey = loggedIn ? kWithLoginQdsVersionKey : kWithoutLoginQdsVersionKey;
    if (!CompareLocalAndQdsVersion(localKey, qdsKey, kPrivacyStatementValue) ||
        !CompareLocalAndQdsVersion(localKey, qdsKey, kUserAgreementValue)) {
        QLOG_ERROR("The local version and QDS version are not the same ");
        return false;
    }
    return true;
}

bool ExplainPrivacyXml::CompareLocalAndQdsVersion(const std::wstring& localPath, const std::wstring& qdsPath,
                                                  const std::wstring& valueName) {
    const std::string localVersion = AccountUtil::GetFlag(localPath, valueName);
    const std::string qdsVersion = AccountUtil::GetFlag(qdsPath, valueName);
    if (localVersion == "0" || qdsVersion == "0") {
        QLOG_WARN("can not find : " << qlb::W2U(localPath) << "or " << qlb::W2U(qdsPath));
        return false;
    }
    return localVersion == qdsVersion;
}
