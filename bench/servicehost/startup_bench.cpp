// The service on the embedded manager, from a copy of the program directory in a temporary machine:
//   BM_StartupToRunning  "qlbmainservice /startup" as a command, from spawn to exit: the tool's own
//                        process start, the service's start and the wait for its mutex
//   BM_StartupMainService  StartupMainService in this process, from call to return (the service is
//                        up: its mutex exists); aim: under 100 ms
//   BM_ControlRoundTrip  one control through the service's control socket and handler
//   BM_QueryStatus       one status query of the manager

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "platform/services/service_control.h"
#include "runtime/common/machine_profile.h"
#include "servicehost/cservicemanager.h"
#include "servicehost/qlbmainservice.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

struct BenchMachine {
    fs::path root;
    fs::path bin;
    qlb::MachineProfile profile;

    BenchMachine() {
        root = fs::temp_directory_path() / ("qlb-bench-" + std::to_string(::getpid()));
        bin = root / "bin";
        fs::remove_all(root);
        fs::create_directories(root);
        fs::copy(QLB_PROGRAM_DIR, bin, fs::copy_options::recursive);
        profile.registry = root / "registry.db";
        profile.appData = root / "appdata/";
        profile.logDir = root / "log/";
        profile.runDir = root / "run/";
        profile.serviceManager = "embedded";
        profile.dmiDir = root / "dmi/";
        profile.watchdogDevice = root / "WDT0001";
        profile.power = "record";
        const nlohmann::json json = {
            {"registry", profile.registry.string()},
            {"appData", profile.appData.string()},
            {"logDir", profile.logDir.string()},
            {"runDir", profile.runDir.string()},
            {"serviceManager", "embedded"},
            {"dmiDir", profile.dmiDir.string()},
            {"watchdogDevice", profile.watchdogDevice.string()},
            {"power", "record"},
        };
        std::ofstream(bin / "config" / "machine.json") << json.dump();
        qlb::MachineProfile::SetCurrent(profile);
        Run({"qlbmainservice", "/install"});
    }
    ~BenchMachine() {
        Run({"qlbmainservice", "/stop"});
        WaitStopped();
        Run({"qlbmainservice", "/uninstall"});
        fs::remove_all(root);
    }

    int Run(const std::vector<std::string>& args) const {
        const std::string exe = (bin / args[0]).string();
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(exe.c_str()));
        for (size_t i = 1; i < args.size(); ++i) {
            argv.push_back(const_cast<char*>(args[i].c_str()));
        }
        argv.push_back(nullptr);
        pid_t pid = 0;
        if (posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
            return -1;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    DWORD State() const {
        auto manager = qlb::platform::MakeServiceControlManager(profile);
        const auto status = manager->QueryServiceStatus(L"QLBMainService");
        return status.ok() ? status.value.dwCurrentState : 0;
    }
    void WaitStopped() const {
        for (int i = 0; i < 2000 && State() != SERVICE_STOPPED; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
};

// Made and removed by main, around the benchmarks, so no static of the libraries is gone before it.
BenchMachine* g_machine = nullptr;

BenchMachine& Machine() {
    return *g_machine;
}

void BM_StartupToRunning(benchmark::State& state) {
    auto& m = Machine();
    for (auto _ : state) {
        m.Run({"qlbmainservice", "/startup"});
        state.PauseTiming();
        if (m.State() != SERVICE_RUNNING) {
            state.SkipWithError("the service did not come up");
            break;
        }
        m.Run({"qlbmainservice", "/stop"});
        m.WaitStopped();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StartupToRunning)->Unit(benchmark::kMillisecond)->Iterations(20)->UseRealTime();

void BM_StartupMainService(benchmark::State& state) {
    auto& m = Machine();
    CServiceManager manager;
    for (auto _ : state) {
        const int started = StartupMainService(manager);
        state.PauseTiming();
        if (started != 1) {
            state.SkipWithError("the service did not come up");
            break;
        }
        m.Run({"qlbmainservice", "/stop"});
        m.WaitStopped();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StartupMainService)->Unit(benchmark::kMillisecond)->Iterations(20)->UseRealTime();

void BM_ControlRoundTrip(benchmark::State& state) {
    auto& m = Machine();
    m.Run({"qlbmainservice", "/startup"});
    auto manager = qlb::platform::MakeServiceControlManager(m.profile);
    for (auto _ : state) {
        const auto reply = manager->ControlService(L"QLBMainService", SERVICE_CONTROL_INTERROGATE, 0, 0);
        if (!reply.ok()) {
            state.SkipWithError("control failed");
            break;
        }
    }
    m.Run({"qlbmainservice", "/stop"});
    m.WaitStopped();
}
BENCHMARK(BM_ControlRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_QueryStatus(benchmark::State& state) {
    auto& m = Machine();
    auto manager = qlb::platform::MakeServiceControlManager(m.profile);
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager->QueryServiceStatus(L"QLBMainService"));
    }
}
BENCHMARK(BM_QueryStatus)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    g_machine = new BenchMachine();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    delete g_machine;
    return 0;
}
