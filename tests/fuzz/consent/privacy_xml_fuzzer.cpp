// The privacy document's XML on arbitrary text: parsing, the brand/country/entry navigation and the
// version helpers applied to whatever texts the elements hold. (The entry walk itself is not driven
// here: a document without a fitting entry keeps it re-examining, by design.)

#include <cstdint>
#include <cstdlib>
#include <string>

#include "consent/explain_privacy_xml.h"
#include "runtime/xml/zv_xml.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ZvXMLDocument document;
    if (document.Parse(std::string(reinterpret_cast<const char*>(data), size)) != 0) {
        return 0;
    }
    const ZvXmlElement root = document.RootElement();
    for (ZvXmlElement brand = root.FirstNode("brand"); !brand.IsElementNull();
         brand = brand.NextSiblingElement("brand")) {
        (void)brand.Attribute("name");
        for (ZvXmlElement country = brand.FirstNode("country"); !country.IsElementNull();
             country = country.NextSiblingElement("country")) {
            (void)country.FirstAttribute("name").Value();
            for (ZvXmlElement entry = country.FirstNode("PRIVACY"); !entry.IsElementNull();
                 entry = entry.NextSiblingElement("PRIVACY")) {
                std::string version = entry.FirstNode("tessalink_version").Value();
                ExplainPrivacyXml::VerSplitKind(version);
                const int order = ExplainPrivacyXml::PCVersionCompare("11.0.0.1", version);
                if (order < 0 || order > 2) {
                    std::abort();
                }
                (void)ExplainPrivacyXml::IsVersionValid(version);
                std::string branch = entry.FirstNode("branch_id").Value();
                const std::string before = branch;
                if (ExplainPrivacyXml::SplitBFromBranchId(branch) &&
                    (branch.empty() || branch.size() > before.size())) {
                    std::abort();
                }
                (void)entry.FirstNode("privacy_version").Value();
            }
        }
    }
    return 0;
}
