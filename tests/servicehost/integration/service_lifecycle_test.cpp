// The service executable and qlbsc in a temporary program directory with a machine of their own:
// what an administrator sees on the embedded manager.

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "../spool_events.h"
#include "support/child_process.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;
using qlb::testing::Eventually;
using qlb::testing::ReadFile;

struct Result {
    int code = -1;
    std::string out;
};

class Machine {
  public:
    Machine() {
        fs::copy(QLB_PROGRAM_DIR, bin(), fs::copy_options::recursive);
        fs::create_directories(root() / "dmi");
        std::ofstream(root() / "dmi" / "bios_date") << "01/02/2025\n";
        nlohmann::json profile = {
            {"registry", (root() / "registry.db").string()},
            {"appData", (root() / "appdata/").string()},
            {"logDir", (root() / "log/").string()},
            {"runDir", (root() / "run/").string()},
            {"serviceManager", "embedded"},
            {"systemRoot", (root() / "root/").string()},
            {"dmiDir", (root() / "dmi/").string()},
            {"watchdogDevice", (root() / "WDT0001").string()},
            {"power", "record"},
            {"sessions", {{"1", "nobody"}, {"2", "root"}}},
            {"activeSession", 1},
        };
        std::ofstream(bin() / "config" / "machine.json") << profile.dump(2);
    }
    ~Machine() {
        // Leave no service behind, whatever the test did.
        if (const auto pid = ServicePid(); pid > 0) {
            ::kill(static_cast<pid_t>(pid), SIGKILL);
        }
    }

    // Short: socket paths under it must fit a Unix socket address.
    const fs::path& root() const { return dir_.Path(); }
    fs::path bin() const { return root() / "bin"; }

    Result Run(const std::string& tool, const std::vector<std::string>& args) const {
        std::vector<std::string> argv{(bin() / tool).string()};
        argv.insert(argv.end(), args.begin(), args.end());
        qlb::testing::ChildProcess child(argv);
        Result r{child.Wait(), ""};
        while (const auto line = child.ReadLine()) {
            r.out += *line + "\n";
        }
        return r;
    }
    Result Service(const std::string& sw) const { return Run("qlbmainservice", {sw}); }
    Result Sc(const std::vector<std::string>& args) const { return Run("qlbsc", args); }

    std::int64_t ServicePid() const {
        const auto j =
            nlohmann::json::parse(ReadFile(root() / "run/services/qlbmainservice.status"), nullptr, false);
        return j.is_object() ? j.value("pid", std::int64_t{0}) : 0;
    }
    bool Logged(const std::string& text) const {
        return ReadFile(root() / "log/QuillbarService.log").find(text) != std::string::npos;
    }
    std::vector<nlohmann::json> Events(const std::string& code) const {
        return qlb::servicehost::testing::SpooledEvents(root() / "appdata", code);
    }
    bool StateIs(const std::string& state) const {
        return Sc({"query", "QLBMainService"}).out.find("STATE              : " + state) != std::string::npos;
    }

  private:
    qlb::testing::TempDir dir_;
};

TEST(ServiceLifecycle, InstallStartControlStopUninstall) {
    Machine m;
    // Install: the registration lies in the registry.
    EXPECT_EQ(m.Service("/install").code, 0);
    auto r = m.Run("qlbreg", {"query", "HKLM\\SYSTEM\\CurrentControlSet\\Services\\QLBMainService"});
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("ImagePath    REG_SZ    " + (m.bin() / "qlbmainservice").string()));
    EXPECT_THAT(r.out, HasSubstr("Start    REG_DWORD    0x2"));
    EXPECT_THAT(r.out, HasSubstr("Type    REG_DWORD    0x10"));
    EXPECT_THAT(r.out, HasSubstr("ErrorControl    REG_DWORD    0x0"));
    EXPECT_THAT(r.out, HasSubstr("DisplayName    REG_SZ    ZorVane Assistant Windows Service"));
    EXPECT_TRUE(m.StateIs("1  STOPPED"));

    // Start: /startup returns once the service is up.
    EXPECT_EQ(m.Service("/startup").code, 0);
    r = m.Sc({"query", "QLBMainService"});
    EXPECT_THAT(r.out, HasSubstr("TYPE               : 110  WIN32_OWN_PROCESS  (interactive)"));
    EXPECT_THAT(r.out,
                HasSubstr("STATE              : 4  RUNNING\n"
                          "                                (STOPPABLE, NOT_PAUSABLE, ACCEPTS_SHUTDOWN)"));
    auto startups = m.Events("619000002");
    ASSERT_EQ(startups.size(), 1u);
    EXPECT_EQ(startups[0]["fields"]["0"], "main service");
    EXPECT_EQ(startups[0]["fields"]["1"], "1");
    ASSERT_EQ(m.Events("607001005").size(), 1u);
    EXPECT_EQ(m.Events("607001005")[0]["infoText"], "01/02/2025");
    EXPECT_TRUE(m.Logged("ServiceMain Enter ReportStatus.(PrepareService)"));

    // A second start starts nothing and says so.
    const auto pid = m.ServicePid();
    EXPECT_EQ(m.Service("/startup").code, 0);
    EXPECT_EQ(m.ServicePid(), pid);
    startups = m.Events("619000002");
    ASSERT_EQ(startups.size(), 2u);
    EXPECT_EQ(startups[1]["fields"]["1"], "0");
    r = m.Sc({"start", "QLBMainService"});
    EXPECT_EQ(r.code, 1);
    EXPECT_THAT(r.out, HasSubstr("[SC] StartService FAILED 1056:"));

    // Power events: without the device one log line per event; with it the request.
    const std::string missing =
        "CreateFile " + (m.root() / "WDT0001").string() + " failed with code 2. return";
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "powerevent", "suspend"}).code, 0);
    EXPECT_TRUE(m.Logged(missing));
    std::ofstream(m.root() / "WDT0001").close();
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "powerevent", "resumeautomatic"}).code, 0);
    EXPECT_TRUE(ReadFile(m.root() / "WDT0001").empty());
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "powerevent", "4"}).code, 0);
    auto request = ReadFile(m.root() / "WDT0001");
    ASSERT_EQ(request.size(), 24u);
    EXPECT_EQ(request[0], 6);
    // A shutdown tells the watchdog too, and the service keeps running (no stop event until the stop).
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "shutdown"}).code, 0);
    request = ReadFile(m.root() / "WDT0001");
    ASSERT_EQ(request.size(), 24u);
    EXPECT_EQ(request[0], 5);

    // Sessions: an unlock moves the console for every process of the product.
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "sessionchange", "lock", "1"}).code, 0);
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "sessionchange", "unlock", "2"}).code, 0);
    EXPECT_EQ(qlb::testing::ReadLines(m.root() / "run/sessions/active"), std::vector<std::string>{"2"});

    // Refused controls change nothing; the service still runs.
    r = m.Sc({"control", "QLBMainService", "paramchange"});
    EXPECT_EQ(r.code, 1);
    EXPECT_THAT(r.out, HasSubstr("[SC] ControlService FAILED 1052:"));
    EXPECT_TRUE(m.StateIs("4  RUNNING"));

    // Stop.
    EXPECT_EQ(m.Service("/stop").code, 0);
    ASSERT_TRUE(Eventually([&] { return m.StateIs("1  STOPPED"); }));
    EXPECT_EQ(m.Events("619000005").size(), 1u);
    EXPECT_TRUE(m.Logged("ServiceMain loop exit.(ServiceMain)"));
    r = m.Sc({"stop", "QLBMainService"});
    EXPECT_EQ(r.code, 1);
    EXPECT_THAT(r.out, HasSubstr("[SC] ControlService FAILED 1062:\n\nThe service has not been started."));

    // Uninstall: clean again.
    EXPECT_EQ(m.Service("/uninstall").code, 0);
    r = m.Run("qlbreg", {"query", "HKLM\\SYSTEM\\CurrentControlSet\\Services\\QLBMainService"});
    EXPECT_EQ(r.code, 1);
    r = m.Sc({"query", "QLBMainService"});
    EXPECT_EQ(r.code, 1);
    EXPECT_THAT(r.out, HasSubstr("[SC] OpenService FAILED 1060:"));
}

TEST(ServiceLifecycle, ServiceThatDiesShowsStoppedAndStartsAgain) {
    Machine m;
    ASSERT_EQ(m.Service("/install").code, 0);
    ASSERT_EQ(m.Service("/startup").code, 0);
    const auto pid = m.ServicePid();
    ASSERT_GT(pid, 0);
    ASSERT_EQ(::kill(static_cast<pid_t>(pid), SIGKILL), 0);
    ASSERT_TRUE(Eventually([&] { return m.StateIs("1  STOPPED"); }));
    const auto r = m.Sc({"query", "QLBMainService"});
    EXPECT_THAT(r.out, HasSubstr("WIN32_EXIT_CODE    : 1067  (0x42b)"));
    // Its mutex died with it, and a new start waits for the new one.
    EXPECT_EQ(m.Service("/startup").code, 0);
    EXPECT_TRUE(m.StateIs("4  RUNNING"));
    EXPECT_NE(m.ServicePid(), pid);
    EXPECT_EQ(m.Events("619000002").back()["fields"]["1"], "1");
}

TEST(ServiceLifecycle, ConcurrentStartupsStartOneProcess) {
    Machine m;
    ASSERT_EQ(m.Service("/install").code, 0);
    std::vector<std::thread> starters;
    for (int i = 0; i < 3; ++i) {
        starters.emplace_back([&] { (void)m.Service("/startup"); });
    }
    for (auto& t : starters) {
        t.join();
    }
    const auto results = m.Events("619000002");
    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(
        std::count_if(results.begin(), results.end(), [](const auto& e) { return e["fields"]["1"] == "1"; }),
        1);
    EXPECT_TRUE(m.StateIs("4  RUNNING"));
}

// Without a switch the process is the service itself, which fails outside the manager; an unknown
// switch does nothing. Both exit with zero.
TEST(ServiceLifecycle, StartedByHandOrWithAnUnknownSwitchDoesNothingAndExitsWithZero) {
    Machine m;
    ASSERT_EQ(m.Service("/install").code, 0);
    EXPECT_EQ(m.Service("/bogus").code, 0);
    EXPECT_EQ(m.Service("/STATUS").code, 0);
    EXPECT_TRUE(m.Logged("[main] ProcServiceOperation Result : 0(wmain)"));
    EXPECT_TRUE(m.Logged("[main] ProcServiceOperation Result : 1(wmain)"));
    EXPECT_FALSE(m.Logged("installpatch start"));
    EXPECT_TRUE(m.StateIs("1  STOPPED"));
    EXPECT_EQ(m.Run("qlbmainservice", {}).code, 0);
    EXPECT_TRUE(m.Logged("[main] installpatch end.(wmain)"));
    EXPECT_FALSE(m.Logged("ServiceMain enter."));
}

}  // namespace
