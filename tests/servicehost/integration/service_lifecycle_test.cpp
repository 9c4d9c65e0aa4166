// The service executable and qlbsc in a temporary program directory with a machine of their own:
// what an administrator sees on the embedded manager.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Result {
    int code = -1;
    std::string out;
};

std::string Quote(const std::string& s) {
    std::string q = "'";
    for (const char c : s) {
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return q + "'";
}

class Machine {
  public:
    Machine() {
        // Short: socket paths under it must fit a Unix socket address.
        static int serial = 0;
        root_ = fs::temp_directory_path() /
                ("qlb-life-" + std::to_string(::getpid()) + "-" + std::to_string(++serial));
        fs::remove_all(root_);
        fs::create_directories(root_);
        fs::copy(QLB_PROGRAM_DIR, bin(), fs::copy_options::recursive);
        fs::create_directories(root_ / "dmi");
        std::ofstream(root_ / "dmi" / "bios_date") << "01/02/2025\n";
        nlohmann::json profile = {
            {"registry", (root_ / "registry.db").string()},
            {"appData", (root_ / "appdata/").string()},
            {"logDir", (root_ / "log/").string()},
            {"runDir", (root_ / "run/").string()},
            {"serviceManager", "embedded"},
            {"systemRoot", (root_ / "root/").string()},
            {"dmiDir", (root_ / "dmi/").string()},
            {"watchdogDevice", (root_ / "WDT0001").string()},
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
        fs::remove_all(root_);
    }

    fs::path bin() const { return root_ / "bin"; }
    fs::path root() const { return root_; }

    Result Run(const std::string& tool, const std::vector<std::string>& args) const {
        std::string cmd = Quote((bin() / tool).string());
        for (const auto& a : args) {
            cmd += " " + Quote(a);
        }
        cmd += " 2>&1";
        Result r;
        FILE* p = ::popen(cmd.c_str(), "r");
        if (!p) {
            return r;
        }
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof(buf), p)) > 0) {
            r.out.append(buf, n);
        }
        const int status = ::pclose(p);
        r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return r;
    }
    Result Service(const std::string& sw) const { return Run("qlbmainservice", {sw}); }
    Result Sc(const std::vector<std::string>& args) const { return Run("qlbsc", args); }

    std::int64_t ServicePid() const {
        std::ifstream in(root_ / "run" / "services" / "qlbmainservice.status");
        const auto j = nlohmann::json::parse(in, nullptr, false);
        return j.is_object() ? j.value("pid", std::int64_t{0}) : 0;
    }
    std::string Log() const {
        std::ifstream in(root_ / "log" / "QuillbarService.log");
        std::string text;
        for (std::string line; std::getline(in, line);) {
            text += line + "\n";
        }
        return text;
    }
    std::vector<nlohmann::json> Events(const std::string& code) const {
        std::vector<nlohmann::json> out;
        std::ifstream in(root_ / "appdata" / "telemetry" / "events.jsonl");
        for (std::string line; std::getline(in, line);) {
            auto j = nlohmann::json::parse(line, nullptr, false);
            if (j.is_object() && j.value("eventId", "") == code) {
                out.push_back(j);
            }
        }
        return out;
    }
    bool StateIs(const std::string& state) const {
        return Sc({"query", "QLBMainService"}).out.find("STATE              : " + state) != std::string::npos;
    }

  private:
    fs::path root_;
};

template <typename Pred>
bool Eventually(Pred pred, std::chrono::milliseconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return pred();
}

std::vector<unsigned char> Bytes(const fs::path& f) {
    std::error_code ec;
    const auto size = fs::file_size(f, ec);
    std::vector<unsigned char> bytes(ec ? 0 : size);
    std::ifstream in(f, std::ios::binary);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

TEST(ServiceLifecycle, InstallStartControlStopUninstall) {
    Machine m;
    // Clean.
    auto r = m.Sc({"query", "QLBMainService"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("[SC] OpenService FAILED 1060:"), std::string::npos);

    // Install: the registration lies in the registry.
    EXPECT_EQ(m.Service("/install").code, 0);
    r = m.Run("qlbreg", {"query", "HKLM\\SYSTEM\\CurrentControlSet\\Services\\QLBMainService"});
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_NE(r.out.find("ImagePath    REG_SZ    " + (m.bin() / "qlbmainservice").string()),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Start    REG_DWORD    0x2"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Type    REG_DWORD    0x10"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("DisplayName    REG_SZ    ZorVane Assistant Windows Service"), std::string::npos);
    r = m.Sc({"query", "QLBMainService"});
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("STATE              : 1  STOPPED"), std::string::npos) << r.out;

    // Start: /startup returns once the service is up.
    EXPECT_EQ(m.Service("/startup").code, 0);
    r = m.Sc({"query", "QLBMainService"});
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("TYPE               : 110  WIN32_OWN_PROCESS  (interactive)"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("STATE              : 4  RUNNING\n"
                         "                                (STOPPABLE, NOT_PAUSABLE, ACCEPTS_SHUTDOWN)"),
              std::string::npos)
        << r.out;
    auto startups = m.Events("619000002");
    ASSERT_EQ(startups.size(), 1u);
    EXPECT_EQ(startups[0]["fields"]["0"], "main service");
    EXPECT_EQ(startups[0]["fields"]["1"], "1");
    EXPECT_EQ(m.Events("619000001").size(), 1u);
    ASSERT_EQ(m.Events("607001005").size(), 1u);
    EXPECT_EQ(m.Events("607001005")[0]["infoText"], "01/02/2025");
    EXPECT_NE(m.Log().find("ServiceMain Enter ReportStatus.(PrepareService)"), std::string::npos);

    // A second start starts nothing and says so.
    const auto pid = m.ServicePid();
    EXPECT_EQ(m.Service("/startup").code, 0);
    EXPECT_EQ(m.ServicePid(), pid);
    startups = m.Events("619000002");
    ASSERT_EQ(startups.size(), 2u);
    EXPECT_EQ(startups[1]["fields"]["1"], "0");
    r = m.Sc({"start", "QLBMainService"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("[SC] StartService FAILED 1056:"), std::string::npos);

    // Power events: without the device one log line per event; with it the request.
    const std::string missing =
        "CreateFile " + (m.root() / "WDT0001").string() + " failed with code 2. return";
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "powerevent", "suspend"}).code, 0);
    EXPECT_NE(m.Log().find(missing), std::string::npos);
    std::ofstream(m.root() / "WDT0001").close();
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "powerevent", "resumeautomatic"}).code, 0);
    EXPECT_TRUE(Bytes(m.root() / "WDT0001").empty());
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "powerevent", "4"}).code, 0);
    auto bytes = Bytes(m.root() / "WDT0001");
    ASSERT_EQ(bytes.size(), 24u);
    EXPECT_EQ(bytes[0], 6);

    // Sessions: an unlock moves the console for every process of the product.
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "sessionchange", "lock", "1"}).code, 0);
    EXPECT_EQ(m.Sc({"control", "QLBMainService", "sessionchange", "unlock", "2"}).code, 0);
    std::ifstream active(m.root() / "run" / "sessions" / "active");
    std::string activeText;
    std::getline(active, activeText);
    EXPECT_EQ(activeText, "2");

    // Refused controls change nothing.
    r = m.Sc({"control", "QLBMainService", "paramchange"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("[SC] ControlService FAILED 1052:"), std::string::npos) << r.out;
    EXPECT_TRUE(m.StateIs("4  RUNNING"));

    // Stop.
    EXPECT_EQ(m.Service("/stop").code, 0);
    ASSERT_TRUE(Eventually([&] { return m.StateIs("1  STOPPED"); }));
    EXPECT_EQ(m.Events("619000005").size(), 1u);
    EXPECT_NE(m.Log().find("ServiceMain loop exit.(ServiceMain)"), std::string::npos);
    r = m.Sc({"stop", "QLBMainService"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("[SC] ControlService FAILED 1062:\n\nThe service has not been started."),
              std::string::npos);

    // Uninstall: clean again.
    EXPECT_EQ(m.Service("/uninstall").code, 0);
    r = m.Run("qlbreg", {"query", "HKLM\\SYSTEM\\CurrentControlSet\\Services\\QLBMainService"});
    EXPECT_EQ(r.code, 1);
    r = m.Sc({"query", "QLBMainService"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("[SC] OpenService FAILED 1060:"), std::string::npos);
}

TEST(ServiceLifecycle, ShutdownControlTellsTheWatchdogAndLeavesTheServiceRunning) {
    Machine m;
    ASSERT_EQ(m.Service("/install").code, 0);
    ASSERT_EQ(m.Service("/startup").code, 0);
    std::ofstream(m.root() / "WDT0001").close();
    const auto r = m.Sc({"control", "QLBMainService", "shutdown"});
    EXPECT_EQ(r.code, 0) << r.out;
    const auto bytes = Bytes(m.root() / "WDT0001");
    ASSERT_EQ(bytes.size(), 24u);
    EXPECT_EQ(bytes[0], 5);
    EXPECT_TRUE(m.StateIs("4  RUNNING"));
    EXPECT_EQ(m.Events("619000005").size(), 0u);
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
    EXPECT_NE(r.out.find("WIN32_EXIT_CODE    : 1067  (0x42b)"), std::string::npos) << r.out;
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
    int started = 0;
    for (const auto& e : results) {
        started += e["fields"]["1"] == "1" ? 1 : 0;
    }
    EXPECT_EQ(started, 1);
    EXPECT_TRUE(m.StateIs("4  RUNNING"));
}

TEST(ServiceLifecycle, StartedByHandTheServiceRoleFailsAndExitsWithZero) {
    Machine m;
    const auto r = m.Run("qlbmainservice", {});
    EXPECT_EQ(r.code, 0);
    const auto log = m.Log();
    EXPECT_NE(log.find("[main] installpatch end.(wmain)"), std::string::npos);
    EXPECT_EQ(log.find("ServiceMain enter."), std::string::npos);
}

TEST(ServiceLifecycle, UnknownSwitchDoesNothingAndExitsWithZero) {
    Machine m;
    ASSERT_EQ(m.Service("/install").code, 0);
    EXPECT_EQ(m.Service("/bogus").code, 0);
    EXPECT_EQ(m.Service("/STATUS").code, 0);
    EXPECT_NE(m.Log().find("[main] ProcServiceOperation Result : 0(wmain)"), std::string::npos);
    EXPECT_NE(m.Log().find("[main] ProcServiceOperation Result : 1(wmain)"), std::string::npos);
    EXPECT_EQ(m.Log().find("installpatch start"), std::string::npos);
    EXPECT_TRUE(m.StateIs("1  STOPPED"));
}

}  // namespace
