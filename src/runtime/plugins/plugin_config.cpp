#include "runtime/plugins/plugin_config.h"

#include <charconv>
#include <set>
#include <utility>

#include <tinyxml2.h>

namespace qlb::plugins {
namespace {

constexpr char kProlog[] = "<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?>";

bool ValidName(std::string_view name) {
    if (name.empty() || name.size() > 128 || name == "." || name == "..") {
        return false;
    }
    for (const char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        c == '_' || c == '-' || c == '.';
        if (!ok) {
            return false;  // no separators: a plugin never names a file outside the plugin folder
        }
    }
    return true;
}

bool ParseOpen(std::string_view text, bool& open) {
    if (text == "1" || text == "true") {
        open = true;
        return true;
    }
    if (text == "0" || text == "false") {
        open = false;
        return true;
    }
    return false;
}

bool ParseProcess(std::string_view text, int& process) {
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), process);
    return ec == std::errc{} && ptr == text.data() + text.size() && process >= 0;
}

std::string Attribute(const tinyxml2::XMLElement* e, const char* name) {
    const char* v = e->Attribute(name);
    return v != nullptr ? std::string(v) : std::string();
}

}  // namespace

bool ParsePluginConfig(std::string_view xml, PluginConfig& config, std::string& error) {
    config.plugins.clear();
    if (xml.size() > kMaxPluginConfigSize) {
        error = "plugin configuration is larger than " + std::to_string(kMaxPluginConfigSize) + " bytes";
        return false;
    }
    tinyxml2::XMLDocument doc;
    if (doc.Parse(xml.data(), xml.size()) != tinyxml2::XML_SUCCESS) {
        error = std::string("malformed XML: ") + doc.ErrorStr();
        return false;
    }
    const tinyxml2::XMLElement* root = doc.RootElement();
    if (root == nullptr || std::string_view(root->Name()) != "plugin-list") {
        error = "the root element is not plugin-list";
        return false;
    }
    // Nothing of a document that fails half-way reaches the caller.
    PluginConfig parsed;
    std::set<std::pair<int, std::string>> seen;
    int index = 0;
    for (const auto* e = root->FirstChildElement(); e != nullptr; e = e->NextSiblingElement()) {
        ++index;
        const std::string where = "plugin #" + std::to_string(index);
        if (std::string_view(e->Name()) != "plugin") {
            error = where + ": unexpected element " + e->Name();
            return false;
        }
        PluginEntry entry;
        entry.name = Attribute(e, "name");
        if (!ValidName(entry.name)) {
            error = where + ": attribute name is missing or not a plain file name";
            return false;
        }
        if (!ParseProcess(Attribute(e, "process"), entry.process)) {
            error = where + " (" + entry.name + "): attribute process is missing or not a number";
            return false;
        }
        if (const char* open = e->Attribute("open"); open != nullptr && !ParseOpen(open, entry.open)) {
            error = where + " (" + entry.name + "): attribute open is neither 0/1 nor false/true";
            return false;
        }
        entry.version = Attribute(e, "version");
        entry.clsid = Attribute(e, "clsid");
        entry.description = Attribute(e, "description");
        if (!seen.emplace(entry.process, entry.name).second) {
            error = where + " (" + entry.name + "): the plugin is listed twice for process " +
                    std::to_string(entry.process);
            return false;
        }
        parsed.plugins.push_back(std::move(entry));
    }
    config = std::move(parsed);
    return true;
}

std::string WritePluginConfig(const PluginConfig& config) {
    tinyxml2::XMLDocument doc;
    auto* root = doc.NewElement("plugin-list");
    doc.InsertEndChild(root);
    for (const auto& p : config.plugins) {
        auto* e = doc.NewElement("plugin");
        e->SetAttribute("name", p.name.c_str());
        e->SetAttribute("version", p.version.c_str());
        e->SetAttribute("clsid", p.clsid.c_str());
        e->SetAttribute("open", p.open ? "1" : "0");
        e->SetAttribute("process", p.process);
        e->SetAttribute("description", p.description.c_str());
        root->InsertEndChild(e);
    }
    tinyxml2::XMLPrinter printer;
    doc.Print(&printer);
    return std::string(kProlog) + "\n" + printer.CStr();
}

}  // namespace qlb::plugins
