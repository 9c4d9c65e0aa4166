// The grammar of the plugin configuration.

#include <gtest/gtest.h>

#include "runtime/plugins/plugin_config.h"
#include "support/files.h"

namespace {

using namespace qlb::plugins;

PluginConfig MustParse(const std::string& xml) {
    PluginConfig config;
    std::string error;
    EXPECT_TRUE(ParsePluginConfig(xml, config, error)) << error;
    return config;
}

std::string Plugin(const std::string& attributes) {
    return "<plugin-list><plugin " + attributes + "/></plugin-list>";
}

TEST(PluginConfigGrammar, ReadsEveryAttributeInDocumentOrder) {
    const auto config = MustParse(R"(<?xml version="1.0" encoding="gb2312" standalone="yes" ?>
        <plugin-list>
          <plugin name="B" version="2.0" clsid="{b}" open="0" process="1" description="second"/>
          <plugin name="A" process="2" open="true"/>
          <plugin name="A" process="3" open="false"/>
        </plugin-list>)");
    ASSERT_EQ(config.plugins.size(), 3u);
    EXPECT_EQ(config.plugins[0], (PluginEntry{"B", "2.0", "{b}", "second", false, 1}));
    EXPECT_EQ(config.plugins[1], (PluginEntry{"A", "", "", "", true, 2}));
    EXPECT_FALSE(config.plugins[2].open);
}

TEST(PluginConfigGrammar, TheShippedConfigurationParses) {
    for (const auto& p : MustParse(qlb::testing::ReadFile(QLB_DEFAULT_PLUGIN_CFG)).plugins) {
        // Nothing the product ships loads a plugin that is only a sample.
        EXPECT_FALSE(p.name == "QLBSamplePlugin" && p.open);
    }
}

TEST(PluginConfigGrammar, BadDocumentsAreRefusedWithAReason) {
    std::vector<std::pair<std::string, std::string>> cases = {
        {"", "malformed"},
        {"<plugin-list><plugin name='a' process='1'>", "malformed"},
        {"<plugins/>", "plugin-list"},
        {"<plugin-list><module name='a' process='1'/></plugin-list>", "module"},
        {Plugin("name='a' process='1' open='yes'"), "open"},
        {Plugin("name='a'"), "process"},
        {"<plugin-list><plugin name='a' process='1'/><plugin name='a' process='1'/></plugin-list>", "twice"},
        {"<plugin-list>" + std::string(kMaxPluginConfigSize, ' ') + "</plugin-list>", "larger"},
    };
    // Names that could leave the plugin folder.
    for (const char* name : {"", "..", ".", "../evil", "/lib/evil", "a\\b", "a b", "sub/dir"}) {
        cases.push_back({Plugin("name=\"" + std::string(name) + "\" process=\"1\""), "name"});
    }
    for (const char* process : {"", "one", "-1", "1x", "99999999999"}) {
        cases.push_back({Plugin("name=\"a\" process=\"" + std::string(process) + "\""), "process"});
    }
    for (const auto& [xml, reason] : cases) {
        SCOPED_TRACE(xml.substr(0, 80));
        PluginConfig config;
        std::string error;
        EXPECT_FALSE(ParsePluginConfig(xml, config, error));
        EXPECT_TRUE(config.plugins.empty());
        EXPECT_NE(error.find(reason), std::string::npos) << error;
    }
}

TEST(PluginConfigGrammar, WrittenConfigurationReadsBackTheSame) {
    PluginConfig config;
    config.plugins.push_back(
        {"QLBSamplePlugin", "1.0.0.1", "{6F1D}", "a \"quoted\" <text> & more", false, 1});
    const auto text = WritePluginConfig(config);
    EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?>", 0), 0u);
    EXPECT_EQ(MustParse(text).plugins, config.plugins);
}

}  // namespace
