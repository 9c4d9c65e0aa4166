#pragma once
// The privacy configuration: which versions of the user agreement and the privacy statement apply to
// this device (brand, country, installed version, what the agreement server says), written to the
// registry for the consent decision. Part of the exported consent surface (see docs/consent.md).

#include <string>

class ZvXMLDocument;
class ZvXmlElement;

class ExplainPrivacyXml {
  public:
    // One refresh: decrypt and parse the privacy document, ask the server, pick the entry, write the
    // versions. 0, 2, 400, 1011, 1102, or the server's own non-zero code.
    static int InitPrivacy();

    // The installed product version without its build kind suffix ("11.0.0.1(C233)" -> "11.0.0.1").
    static std::string GetTessalnkVersion();
    // "zorvane", "lumira" or an empty string.
    static std::string GetBrand();
    // 0 equal, 1 a is greater, 2 a is less; fields compared as integers, missing fields count 0.
    static int PCVersionCompare(const std::string& a, const std::string& b);
    static void VerSplitKind(std::string& version);
    static bool IsVersionValid(const std::string& version);
    // Drops leading "b" letters; false (and left alone) when nothing else remains.
    static bool SplitBFromBranchId(std::string& branchId);
    // Whether the local and the server versions of both terms agree, for the current login state.
    static bool CompareLocalAndQdsVersion();
    static bool CompareLocalAndQdsVersion(const std::wstring& localPath, const std::wstring& qdsPath,
                                          const std::wstring& valueName);

  private:
    friend struct ConsentTestPeer;

    static int GetTessalinkPrivacyContent(std::string& content);
    static int GetPrivacyNode(const std::string& country, const ZvXMLDocument& document, ZvXmlElement& node);
    static bool TemporySolution(const std::string& country, const std::string& qdsVersion,
                                const ZvXMLDocument& document);
    static void SetQDSServerStatus(bool updated);
    static bool GetQDSServerStatus();
    static ZvXmlElement InitLocalVersionAndBranchId(const ZvXmlElement& root, const std::string& brand,
                                                    const std::string& version, const std::string& country);
    static int GetLocalVersionAndQDSVersion(const ZvXmlElement& node, std::string& localVersion,
                                            std::string& qdsVersion, std::string& branchId);
    static bool GetVersionFromPrivacyNode(const ZvXmlElement& node, std::string& version,
                                          std::string& branchId);
    static bool WriteLocalVersionToRegedit(const std::string& branchId, const std::string& version,
                                           const std::wstring& path);
    static bool WriteQDSVersionToRegedit(const std::string& country, const std::string& version,
                                         const std::wstring& path);
};
