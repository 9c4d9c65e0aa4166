// The start-up stage in a program directory of the test's own: the IPC server and the plugins come up
// in their order with their events, and each failure leaves the state the stop sequence expects.

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../spool_events.h"
#include "platform/sessions/session_source.h"
#include "runtime/http/url_loader.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/plugins/qlb_plugins_manager.h"
#include "runtime/process/process_utils.h"
#include "runtime/process/support/process_test_support.h"
#include "servicehost/service_init.h"
#include "support/http_test_server.h"

namespace {

namespace fs = std::filesystem;
using namespace qlb::testing;

class ServiceInit : public ::testing::Test {
  protected:
    OpenTempDir dir;
    MinisignKey key{dir.path(), "maker"};
    ProfileScope profile{dir.path(), {key.publicKey()}};
    LogCapture log;
    fs::path cwd = fs::current_path();

    void SetUp() override {
        fs::create_directories(dir / "config");
        fs::create_directories(dir / "plugins");
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting(dir.path());
        LogOn(1);
    }
    void TearDown() override {
        UnloadAllPluginsOfService(true);
        if (g_pObjIPCMsgSrv != nullptr) {
            g_pObjIPCMsgSrv->Stop();
            delete g_pObjIPCMsgSrv;
            g_pObjIPCMsgSrv = nullptr;
        }
        UrlLoader::GetInstance().Stop();
        ServerConfigDownload::GetInstance()->Stop();
        qlb::platform::SetCurrentSessionSource(nullptr);
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting({});
        fs::current_path(cwd);
    }

    // Root at the console of session 1, or nobody at all.
    void LogOn(std::optional<DWORD> session) {
        profile.profile().sessions = {{1, "root"}};
        profile.profile().activeSession = session;
        profile.Apply();
        qlb::platform::SetCurrentSessionSource(
            std::make_unique<qlb::platform::EmbeddedSessionSource>(profile.profile()));
    }
    void Plugin(const std::string& name, bool sign = true) {
        fs::copy_file(QLB_SAMPLE_PLUGIN, dir / "plugins" / (name + ".dll"));
        if (sign) {
            key.Sign(dir / "plugins" / (name + ".dll"));
        }
    }
    void Configure(const std::vector<std::string>& names) {
        std::string xml = "<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?>\n<plugin-list>";
        for (const auto& n : names) {
            xml += "<plugin name=\"" + n + "\" process=\"1\" open=\"1\"/>";
        }
        WriteFile(dir / "config/plugincfg.xml", xml + "</plugin-list>");
    }
    bool PluginMapped(const std::string& name) const { return Mapped(dir / "plugins" / (name + ".dll")); }
    std::vector<std::string> EventIds() const {
        std::vector<std::string> ids;
        for (const auto& e : qlb::servicehost::testing::SpooledEvents(dir / "appdata")) {
            ids.push_back(e["eventId"].get<std::string>());
        }
        return ids;
    }
};

TEST_F(ServiceInit, BringsUpTheIpcServerThenThePluginsWithTheirEvents) {
    Plugin("QLBSamplePlugin");
    Configure({"QLBSamplePlugin"});
    ASSERT_TRUE(InitService());

    EXPECT_TRUE(fs::exists(dir / "run/ipc.sock"));
    EXPECT_TRUE(PluginMapped("QLBSamplePlugin"));
    EXPECT_TRUE(fs::is_directory(dir / "appdata/cache"));
    EXPECT_EQ(fs::current_path(), dir.path());

    EXPECT_EQ(EventIds(), (std::vector<std::string>{"619000000", "619000003"}));
    const auto loaded = qlb::servicehost::testing::SpooledEvents(dir / "appdata")[1];
    EXPECT_EQ(loaded["fields"]["0"], "total");
    EXPECT_THAT(loaded["fields"]["1"].get<std::string>(), ::testing::MatchesRegex("[0-9]+"));  // elapsed ms
    EXPECT_FALSE(log.HasText("InitService current user not logged in"));
}

TEST_F(ServiceInit, NobodyLoggedOnIsLoggedAndEverythingElseRuns) {
    LogOn(std::nullopt);
    Configure({});
    EXPECT_TRUE(InitService());
    EXPECT_TRUE(log.Has("WARN", "InitService current user not logged in(InitService)"));
    EXPECT_EQ(EventIds(), (std::vector<std::string>{"619000000", "619000003"}));
}

TEST_F(ServiceInit, AMalformedPluginConfigurationFailsWithoutTheLoadEvent) {
    WriteFile(dir / "config/plugincfg.xml", "<plugin-list><plugin name='x'");
    EXPECT_FALSE(InitService());
    EXPECT_TRUE(log.Has("ERROR", "fail to load plugin cfg.(LoadAllPluginsOfService)"));
    // The manager stays for the stop control; the IPC server is stopped but kept.
    EXPECT_NE(g_pObjSvrPluginsManager, nullptr);
    ASSERT_NE(g_pObjIPCMsgSrv, nullptr);
    EXPECT_FALSE(fs::exists(dir / "run/ipc.sock"));
    EXPECT_EQ(EventIds(), (std::vector<std::string>{"619000000", "619000004"}));
}

TEST_F(ServiceInit, APluginThatFailsStillSendsTheLoadEventAndTheOthersAreUnloaded) {
    Plugin("Good");
    Plugin("Unsigned", /*sign=*/false);
    Configure({"Good", "Unsigned"});
    EXPECT_FALSE(InitService());
    EXPECT_EQ(EventIds(), (std::vector<std::string>{"619000000", "619000003", "619000004"}));
    EXPECT_FALSE(PluginMapped("Good"));
    EXPECT_FALSE(PluginMapped("Unsigned"));
    // The manager stays for the stop control, which destroys it; a second unload finds nothing.
    EXPECT_NE(g_pObjSvrPluginsManager, nullptr);
    UnloadAllPluginsOfService(true);
    EXPECT_EQ(g_pObjSvrPluginsManager, nullptr);
    UnloadAllPluginsOfService(true);
    EXPECT_EQ(EventIds(), (std::vector<std::string>{"619000000", "619000003", "619000004", "619000004"}));
}

TEST_F(ServiceInit, AnIpcServerThatCannotStartLeavesNoPluginsAndNoEvent) {
    IPCMessageServer other;  // already answers on the profile's socket
    ASSERT_TRUE(other.Start());
    Configure({});
    EXPECT_FALSE(InitService());
    EXPECT_TRUE(log.Has("WARN", "Init Service: fail to start ipc server.(StartIPCServer)"));
    EXPECT_NE(g_pObjIPCMsgSrv, nullptr);
    EXPECT_EQ(g_pObjSvrPluginsManager, nullptr);
    EXPECT_TRUE(EventIds().empty());
    other.Stop();
}

TEST_F(ServiceInit, ServerConfigurationIsFetchedOnlyWhereTheLoginGuideIsTheChineseOne) {
    HttpTestServer server([](const HttpExchange&) { return HttpReply{200, R"({"switch":1})", {}}; });
    profile.profile().services[ServerConfigDownload::kServiceName]["ROOT"] = server.Url("/");
    profile.Apply();

    StartServerConfigService();
    StopServerConfigService();
    EXPECT_EQ(server.RequestCount(), 0u);
    EXPECT_FALSE(log.HasText("will start to access config server."));

    profile.profile().capabilities.properties["ZVLoginGuide"] = {"china"};
    profile.Apply();
    StartServerConfigService();
    EXPECT_TRUE(log.Has("WARN", "will start to access config server.(StartServerConfigService)"));
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_EQ(server.Requests()[0].method, "GET");
    EXPECT_EQ(server.Requests()[0].target, ServerConfigDownload::kConfigPath);
    EXPECT_TRUE(Eventually([] { return ServerConfigDownload::GetInstance()->Fetched(); }));
    EXPECT_EQ(ReadFile(dir / "appdata/cache/serverconfig.json"), R"({"switch":1})");
    StopServerConfigService();
    EXPECT_TRUE(log.Has("WARN", "ServiceMain enter ServerConfigDownload uninit.(StopServerConfigService)"));
}

TEST_F(ServiceInit, ServerConfigurationWithoutAnEndpointIsOnlyLogged) {
    profile.profile().capabilities.properties["ZVLoginGuide"] = {"china"};
    profile.Apply();
    StartServerConfigService();
    EXPECT_TRUE(log.HasText("ServerConfigDownload no endpoint for com.zorvane.cloud.configserver"));
    EXPECT_FALSE(ServerConfigDownload::GetInstance()->Start());
    StopServerConfigService();
}

}  // namespace
