// The plugin host: signed plugins with all entries load for their process, everything else is
// refused with a log line, and unloading undoes the loading.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <functional>

#include "runtime/plugins/qlb_plugins_manager.h"
#include "runtime/process/support/process_test_support.h"

namespace {

namespace fs = std::filesystem;
using namespace qlb::testing;

constexpr char kSampleClsid[] = "{6F1D2C3B-9A48-4E5F-8B7C-2D1E0F3A4B5C}";

class PluginHost : public ::testing::Test {
  protected:
    OpenTempDir dir;
    MinisignKey key{dir.path(), "maker"};
    ProfileScope profile{dir.path(), {key.publicKey()}};
    LogCapture log;
    fs::path pluginDir = dir / "plugins";
    fs::path cfg = dir / "plugincfg.xml";

    void SetUp() override { fs::create_directories(pluginDir); }

    void Install(const char* built, const std::string& name, bool sign = true) {
        const auto target = pluginDir / (name + ".dll");
        fs::copy_file(built, target, fs::copy_options::overwrite_existing);
        if (sign) {
            key.Sign(target);
        }
    }
    void Configure(const std::string& plugins) {
        WriteFile(cfg, "<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?>\n<plugin-list>" +
                           plugins + "</plugin-list>");
    }
    static std::string Entry(const std::string& name, int process = 1, bool open = true,
                             const char* clsid = "") {
        return "<plugin name=\"" + name + "\" process=\"" + std::to_string(process) + "\" open=\"" +
               (open ? "1" : "0") + "\" clsid=\"" + clsid + "\"/>";
    }
    // Calls an exported counter of a loaded plugin; -1 when the plugin is not loaded.
    int Counter(const std::string& name, const char* symbol = "QlbSamplePluginInitCount") const {
        void* h = ::dlopen((pluginDir / (name + ".dll")).c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (h == nullptr) {
            return -1;
        }
        auto fn = reinterpret_cast<int (*)()>(::dlsym(h, symbol));
        const int value = fn != nullptr ? fn() : -2;
        ::dlclose(h);
        return value;
    }
    bool Loaded(const std::string& name) const { return Counter(name) >= 0; }
};

TEST_F(PluginHost, SignedPluginLoadsOnceCreatesItsObjectsAndUnloads) {
    Install(QLB_SAMPLE_PLUGIN, "QLBSamplePlugin");
    Configure(Entry("QLBSamplePlugin", 1, true, kSampleClsid));
    {
        QLBPluginsManager host(pluginDir);
        ASSERT_TRUE(host.LoadCfg(cfg.c_str(), 1));
        ASSERT_TRUE(host.LoadAllPlugins(nullptr));
        ASSERT_TRUE(host.LoadAllPlugins(nullptr));
        EXPECT_EQ(host.LoadedPlugins(), std::vector<std::string>{"QLBSamplePlugin"});
        EXPECT_EQ(Counter("QLBSamplePlugin"), 1);
        // A null context gets one of the host's, naming the process kind.
        EXPECT_EQ(Counter("QLBSamplePlugin", "QlbSamplePluginLastProcess"), 1);
        void* object = nullptr;
        EXPECT_TRUE(host.CreateObject(kSampleClsid, &object));
        EXPECT_NE(object, nullptr);
        EXPECT_FALSE(host.CreateObject("{00000000-0000-0000-0000-000000000000}", &object));
        EXPECT_FALSE(host.CreateObject(kSampleClsid, nullptr));
        host.UnloadAllPlugins();
        host.UnloadAllPlugins();
        EXPECT_TRUE(host.LoadedPlugins().empty());
        EXPECT_FALSE(Loaded("QLBSamplePlugin"));
        ASSERT_TRUE(host.LoadAllPlugins(nullptr));
    }
    EXPECT_FALSE(Loaded("QLBSamplePlugin")) << "the host's destructor unloads what is left";
}

TEST_F(PluginHost, OnlyOpenPluginsOfTheHostsProcessLoad) {
    Install(QLB_SAMPLE_PLUGIN, "Closed");
    Install(QLB_SAMPLE_PLUGIN, "ForMessageCenter");
    Install(QLB_SAMPLE_PLUGIN, "ForService");
    Configure(Entry("Closed", 1, false) + Entry("ForMessageCenter", 2) + Entry("ForService", 1));
    QLBPluginsManager host(pluginDir);
    ASSERT_TRUE(host.LoadCfg(cfg.c_str(), 1));
    ASSERT_TRUE(host.LoadAllPlugins(nullptr));
    EXPECT_EQ(host.LoadedPlugins(), std::vector<std::string>{"ForService"});
    EXPECT_FALSE(Loaded("Closed"));
    EXPECT_FALSE(Loaded("ForMessageCenter"));
}

TEST_F(PluginHost, EveryFaultyPluginIsRefusedWithItsReasonWhileTheOthersLoad) {
    Install(QLB_SAMPLE_PLUGIN, "Good");
    const auto path = [&](const char* name) { return (pluginDir / (std::string(name) + ".dll")).string(); };
    const struct {
        const char* name;
        std::function<void()> install;
        std::string line;
    } cases[] = {
        {"Unsigned", [&] { Install(QLB_SAMPLE_PLUGIN, "Unsigned", false); },
         "plugin not loaded, signature check failed: " + path("Unsigned") +
             ", error=0x800b0100(QLBPluginsManager::LoadOne)"},
        {"Altered",
         [&] {
             Install(QLB_SAMPLE_PLUGIN, "Altered");
             std::ofstream(path("Altered"), std::ios::app | std::ios::binary) << "tail";
         },
         "error=0x80096010"},
        {"Absent", [] {}, "Absent.dll, error=0x2("},
        {"NoEntries", [&] { Install(QLB_NOENTRY_PLUGIN, "NoEntries"); },
         "plugin not loaded, entries missing: " + path("NoEntries")},
        {"Failing", [&] { Install(QLB_FAILING_PLUGIN, "Failing"); },
         "plugin refused to initialize: Failing(QLBPluginsManager::LoadOne)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.install();
        Configure(Entry(c.name) + Entry("Good"));
        LogCapture lines;
        QLBPluginsManager host(pluginDir);
        ASSERT_TRUE(host.LoadCfg(cfg.c_str(), 1));
        EXPECT_FALSE(host.LoadAllPlugins(nullptr));
        EXPECT_EQ(host.LoadedPlugins(), std::vector<std::string>{"Good"});
        EXPECT_FALSE(Loaded(c.name));
        EXPECT_TRUE(lines.Has("ERROR", c.line));
    }
}

TEST_F(PluginHost, BadConfigurationIsRefusedAndTheFormerOneStays) {
    Configure(Entry("First"));
    QLBPluginsManager host(pluginDir);
    ASSERT_TRUE(host.LoadCfg(cfg.c_str(), 1));
    WriteFile(cfg, "<plugin-list><plugin name='Second' process='1'>");
    EXPECT_FALSE(host.LoadCfg(cfg.c_str(), 1));
    EXPECT_TRUE(log.HasText("plugin cfg is malformed: " + cfg.string()));
    EXPECT_FALSE(host.LoadCfg((dir / "absent.xml").c_str(), 1));
    EXPECT_FALSE(host.LoadCfg(nullptr, 1));
    EXPECT_FALSE(host.LoadCfg(dir.path().c_str(), 1));  // a directory
    ASSERT_EQ(host.ConfiguredPlugins().size(), 1u);
    EXPECT_EQ(host.ConfiguredPlugins()[0].name, "First");
}

}  // namespace
