// Cost of sending one telemetry record: serialising it and appending its line to the spool.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "runtime/common/machine_profile.h"
#include "runtime/telemetry/event_data_report.h"
#include "runtime/telemetry/spool.h"

namespace {

LogInfo TypicalRecord() {
    LogInfo info = EventDataReport::Instance().GetMsg("601006020", "");
    info.eventType = 1;
    info.fields = {{0, "QLBMessageCenter.exe"}, {1, "0"}, {2, "2148204800"}, {3, "1.0.0.0"}};
    return info;
}

class TempAppData {
  public:
    TempAppData() {
        char pattern[] = "/tmp/qlb-bench-XXXXXX";
        root_ = ::mkdtemp(pattern);
        qlb::MachineProfile profile;
        profile.appData = root_ / "appdata/";
        profile.logDir = root_ / "log/";
        qlb::MachineProfile::SetCurrent(profile);
    }
    ~TempAppData() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }

  private:
    std::filesystem::path root_;
};

void BM_SerializeRecord(benchmark::State& state) {
    const LogInfo info = TypicalRecord();
    std::string line;
    for (auto _ : state) {
        qlb::telemetry::SerializeRecord(info, line);
        benchmark::DoNotOptimize(line.data());
    }
}
BENCHMARK(BM_SerializeRecord);

void BM_SendMsg(benchmark::State& state) {
    static TempAppData machine;  // shared by the threads of a multi-threaded run
    LogInfo info = TypicalRecord();
    for (auto _ : state) {
        benchmark::DoNotOptimize(EventDataReport::Instance().SendMsg(info));
    }
}
BENCHMARK(BM_SendMsg)->Threads(1)->Threads(4);

void BM_GetMsgThenSendMsg(benchmark::State& state) {
    static TempAppData machine;
    for (auto _ : state) {
        LogInfo info = EventDataReport::Instance().GetMsg("619000000", "");
        benchmark::DoNotOptimize(EventDataReport::Instance().SendMsg(info));
    }
}
BENCHMARK(BM_GetMsgThenSendMsg);

}  // namespace

BENCHMARK_MAIN();
