// The grammar of the plugin configuration.

#include <gtest/gtest.h>

#include "runtime/plugins/plugin_config.h"
#include "runtime/process/support/process_test_support.h"

namespace {

using namespace qlb::plugins;

PluginConfig MustParse(const std::string& xml) {
    PluginConfig config;
    std::string error;
    EXPECT_TRUE(ParsePluginConfig(xml, config, error)) << error;
    return config;
}

std::string ErrorOf(const std::string& xml) {
    PluginConfig config;
    std::string error;
    EXPECT_FALSE(ParsePluginConfig(xml, config, error)) << xml;
    EXPECT_TRUE(config.plugins.empty());
    return error;
}

TEST(PluginConfigGrammar, ReadsEveryAttributeInDocumentOrder) {
    const auto config = MustParse(R"(<?xml version="1.0" encoding="gb2312" standalone="yes" ?>
        <plugin-list>
          <plugin name="B" version="2.0" clsid="{b}" open="0" process="1" description="second"/>
          <plugin name="A" process="2"/>
        </plugin-list>)");
    ASSERT_EQ(config.plugins.size(), 2u);
    EXPECT_EQ(config.plugins[0], (PluginEntry{"B", "2.0", "{b}", "second", false, 1}));
    EXPECT_EQ(config.plugins[1], (PluginEntry{"A", "", "", "", true, 2}));
}

TEST(PluginConfigGrammar, OpenTakesDigitsOrWords) {
    EXPECT_TRUE(MustParse(R"(<plugin-list><plugin name="a" process="1" open="true"/></plugin-list>)")
                    .plugins[0]
                    .open);
    EXPECT_FALSE(MustParse(R"(<plugin-list><plugin name="a" process="1" open="false"/></plugin-list>)")
                     .plugins[0]
                     .open);
    EXPECT_NE(ErrorOf(R"(<plugin-list><plugin name="a" process="1" open="yes"/></plugin-list>)").find("open"),
              std::string::npos);
}

TEST(PluginConfigGrammar, TheShippedConfigurationParses) {
    const auto config = MustParse(qlb::testing::ReadFile(QLB_DEFAULT_PLUGIN_CFG));
    for (const auto& p : config.plugins) {
        // Nothing the product ships loads a plugin that is only a sample.
        EXPECT_FALSE(p.name == "QLBSamplePlugin" && p.open);
    }
}

TEST(PluginConfigGrammar, MalformedDocumentsAreRefusedWithAReason) {
    EXPECT_NE(ErrorOf("").find("malformed"), std::string::npos);
    EXPECT_NE(ErrorOf("<plugin-list><plugin name='a' process='1'>").find("malformed"), std::string::npos);
    EXPECT_NE(ErrorOf("<plugins/>").find("plugin-list"), std::string::npos);
    EXPECT_NE(ErrorOf("<plugin-list><module name='a' process='1'/></plugin-list>").find("module"),
              std::string::npos);
}

TEST(PluginConfigGrammar, NamesThatCouldLeaveThePluginFolderAreRefused) {
    for (const char* name : {"", "..", ".", "../evil", "/lib/evil", "a\\b", "a b", "sub/dir"}) {
        const std::string xml =
            std::string("<plugin-list><plugin name=\"") + name + "\" process=\"1\"/></plugin-list>";
        EXPECT_NE(ErrorOf(xml).find("name"), std::string::npos) << name;
    }
}

TEST(PluginConfigGrammar, ProcessMustBeANonNegativeNumber) {
    for (const char* process : {"", "one", "-1", "1x", "99999999999"}) {
        const std::string xml =
            std::string("<plugin-list><plugin name=\"a\" process=\"") + process + "\"/></plugin-list>";
        EXPECT_NE(ErrorOf(xml).find("process"), std::string::npos) << process;
    }
    EXPECT_NE(ErrorOf("<plugin-list><plugin name='a'/></plugin-list>").find("process"), std::string::npos);
}

TEST(PluginConfigGrammar, APluginListedTwiceForOneProcessIsRefused) {
    EXPECT_NE(
        ErrorOf("<plugin-list><plugin name='a' process='1'/><plugin name='a' process='1'/></plugin-list>")
            .find("twice"),
        std::string::npos);
    EXPECT_EQ(
        MustParse("<plugin-list><plugin name='a' process='1'/><plugin name='a' process='2'/></plugin-list>")
            .plugins.size(),
        2u);
}

TEST(PluginConfigGrammar, AnOversizedFileIsRefusedUnread) {
    const std::string big = "<plugin-list>" + std::string(kMaxPluginConfigSize, ' ') + "</plugin-list>";
    EXPECT_NE(ErrorOf(big).find("larger"), std::string::npos);
}

TEST(PluginConfigGrammar, WrittenConfigurationReadsBackTheSame) {
    PluginConfig config;
    config.plugins.push_back(
        {"QLBSamplePlugin", "1.0.0.1", "{6F1D}", "a \"quoted\" <text> & more", false, 1});
    config.plugins.push_back({"Other-1.x", "", "", "", true, 3});
    const auto text = WritePluginConfig(config);
    EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?>", 0), 0u);
    const auto back = MustParse(text);
    EXPECT_EQ(back.plugins, config.plugins);
}

}  // namespace
