#pragma once
// The plugin configuration "config/plugincfg.xml" (grammar in docs/plugins.md):
//
//   <?xml version="1.0" encoding="gb2312" standalone="yes" ?>
//   <plugin-list>
//       <plugin name="QLBSamplePlugin" version="1.0.0.1" clsid="{...}" open="1" process="1"
//               description="..."/>
//   </plugin-list>

#include <string>
#include <string_view>
#include <vector>

namespace qlb::plugins {

// The process kinds of the "process" attribute.
inline constexpr int kProcessMainService = 1;
inline constexpr int kProcessMessageCenter = 2;
inline constexpr int kProcessUserInterface = 3;

struct PluginEntry {
    std::string name;  // file name without ".dll": letters, digits, '_', '-', '.'
    std::string version;
    std::string clsid;
    std::string description;
    bool open = true;  // a closed plugin is configured but not loaded
    int process = 0;

    friend bool operator==(const PluginEntry&, const PluginEntry&) = default;
};

struct PluginConfig {
    std::vector<PluginEntry> plugins;  // in document order
};

// The file is at most this large; a larger one is refused unread.
inline constexpr size_t kMaxPluginConfigSize = 1024 * 1024;

// Parses the document. False with a reason in `error` (naming the element or attribute) when it is
// not a plugin list: malformed XML, another root, a plugin without a valid name or process, an
// "open" that is neither 0/1 nor false/true, or a name given twice for one process.
bool ParsePluginConfig(std::string_view xml, PluginConfig& config, std::string& error);

// Writes the document back, prolog included; ParsePluginConfig of the result gives `config` again.
std::string WritePluginConfig(const PluginConfig& config);

}  // namespace qlb::plugins
