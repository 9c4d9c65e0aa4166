// Point reads and writes of the registry store: a read should stay well under 10 µs and a write that
// has reached the operating system under 100 µs.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "runtime/registry/de_registry.h"
#include "runtime/registry/registry_store.h"

namespace {

using qlb::registry::RegistryStore;
using qlb::registry::RegValue;

const std::wstring kKey = L"SOFTWARE\\Tessalink\\AgreementService\\WithAccountLogin\\LocalVersion";

class StoreFixture : public benchmark::Fixture {
  public:
    void SetUp(benchmark::State&) override {
        dir_ = std::filesystem::temp_directory_path() / ("qlbreg-bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir_);
        store_ = RegistryStore::Open(dir_ / "registry.db").value;
        // A store with some bulk, so that lookups walk real indexes.
        for (int k = 0; k < 200; ++k) {
            const std::wstring key = L"SOFTWARE\\Vendor" + std::to_wstring(k) + L"\\Product\\Settings";
            for (int v = 0; v < 10; ++v) {
                (void)store_->SetValue(HKEY_LOCAL_MACHINE, key,
                                       RegValue::Dword(L"v" + std::to_wstring(v), v));
            }
        }
        (void)store_->SetValue(HKEY_LOCAL_MACHINE, kKey, RegValue::String(L"133", L"3.0.1"));
        (void)store_->SetValue(HKEY_LOCAL_MACHINE, kKey, RegValue::Dword(L"BranchId", 7));
    }
    void TearDown(benchmark::State&) override {
        RegistryStore::SetDefault(nullptr);
        store_.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

  protected:
    std::filesystem::path dir_;
    std::shared_ptr<RegistryStore> store_;
};

BENCHMARK_F(StoreFixture, PointReadDword)(benchmark::State& state) {
    for (auto _ : state) {
        auto value = store_->GetValue(HKEY_LOCAL_MACHINE, kKey, L"BranchId");
        benchmark::DoNotOptimize(value);
    }
}

BENCHMARK_F(StoreFixture, PointReadString)(benchmark::State& state) {
    for (auto _ : state) {
        auto value = store_->GetValue(HKEY_LOCAL_MACHINE, kKey, L"133");
        benchmark::DoNotOptimize(value);
    }
}

BENCHMARK_F(StoreFixture, StaticGetValue)(benchmark::State& state) {
    RegistryStore::SetDefault(store_);
    std::wstring text;
    for (auto _ : state) {
        benchmark::DoNotOptimize(DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kKey, L"133", text));
    }
}

BENCHMARK_F(StoreFixture, DurableWriteExistingValue)(benchmark::State& state) {
    DWORD n = 0;
    for (auto _ : state) {
        auto status = store_->SetValue(HKEY_LOCAL_MACHINE, kKey, RegValue::Dword(L"BranchId", ++n));
        benchmark::DoNotOptimize(status);
    }
}

BENCHMARK_F(StoreFixture, DurableWriteNewValue)(benchmark::State& state) {
    int n = 0;
    for (auto _ : state) {
        auto status =
            store_->SetValue(HKEY_LOCAL_MACHINE, kKey, RegValue::Dword(L"n" + std::to_wstring(++n), 1));
        benchmark::DoNotOptimize(status);
    }
}

BENCHMARK_F(StoreFixture, KeyExists)(benchmark::State& state) {
    for (auto _ : state) {
        auto status = store_->OpenKey(HKEY_LOCAL_MACHINE, kKey);
        benchmark::DoNotOptimize(status);
    }
}

}  // namespace

BENCHMARK_MAIN();
