// Costs of the process utilities: a snapshot of the process table, a lookup by image name, a
// signature check of a module, and reading a plugin configuration.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/processes/process_api.h"
#include "runtime/plugins/plugin_config.h"
#include "runtime/process/minisign.h"
#include "runtime/process/process_utils.h"

namespace {

namespace fs = std::filesystem;

void BM_ProcessSnapshot(benchmark::State& state) {
    auto api = qlb::platform::MakeLinuxProcessApi();
    size_t count = 0;
    for (auto _ : state) {
        auto snapshot = api->Snapshot();
        count = snapshot.value.size();
        benchmark::DoNotOptimize(snapshot);
    }
    state.counters["processes"] = static_cast<double>(count);
}
BENCHMARK(BM_ProcessSnapshot)->Unit(benchmark::kMicrosecond);

void BM_QueryPidByProcessName(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<unsigned long> pids;
        benchmark::DoNotOptimize(ZVPROCESS::HELPER::QueryPidByProcessName(
            L"QLBMessageCenter.exe", pids, ZVPROCESS::HELPER::QUERY_PROCESS_ALL));
    }
}
BENCHMARK(BM_QueryPidByProcessName)->Unit(benchmark::kMicrosecond);

// A signed file of state.range(0) bytes in a directory of its own, signed by a fresh key.
struct SignedFile {
    fs::path dir;
    fs::path file;
    fs::path key;
    explicit SignedFile(std::int64_t size) {
        std::string pattern = (fs::temp_directory_path() / "qlbbench-XXXXXX").string();
        dir = ::mkdtemp(pattern.data());
        file = dir / "Module.dll";
        key = dir / "k.pub";
        std::ofstream(file, std::ios::binary) << std::string(static_cast<size_t>(size), 'm');
        const std::string quiet = " >/dev/null 2>&1";
        std::system(
            ("minisign -G -W -f -p " + key.string() + " -s " + (dir / "k.sec").string() + quiet).c_str());
        std::system(("minisign -S -s " + (dir / "k.sec").string() + " -m " + file.string() + quiet).c_str());
    }
    ~SignedFile() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

void BM_VerifySignature(benchmark::State& state) {
    SignedFile signedFile(state.range(0));
    for (auto _ : state) {
        if (qlb::signing::VerifyFile(signedFile.file, {signedFile.key}) != 0) {
            state.SkipWithError("signature did not verify");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_VerifySignature)->Arg(64 << 10)->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMicrosecond);

void BM_ParsePluginConfig(benchmark::State& state) {
    qlb::plugins::PluginConfig config;
    for (int i = 0; i < state.range(0); ++i) {
        config.plugins.push_back({"Plugin" + std::to_string(i), "1.0.0." + std::to_string(i), "{clsid}",
                                  "a plugin of the service", i % 2 == 0, 1 + i % 3});
    }
    const std::string text = qlb::plugins::WritePluginConfig(config);
    for (auto _ : state) {
        qlb::plugins::PluginConfig parsed;
        std::string error;
        benchmark::DoNotOptimize(qlb::plugins::ParsePluginConfig(text, parsed, error));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_ParsePluginConfig)->Arg(10)->Arg(100)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
