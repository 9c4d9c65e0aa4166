// The process monitor module and its loader: only a module with a good signature is ever loaded, the
// operations sit at their fixed positions, and the service's operations do their work.

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"
#include "runtime/process/mon_process.h"
#include "runtime/process/process_utils.h"
#include "runtime/process/support/process_test_support.h"

namespace {

namespace fs = std::filesystem;
using namespace qlb::testing;

class MonProcessLoad : public ::testing::Test {
  protected:
    OpenTempDir dir;
    MinisignKey key{dir.path(), "maker"};
    ProfileScope profile{dir.path(), {key.publicKey()}};
    fs::path modulePath = dir / "MonProcess.dll";
    void* module = nullptr;
    MonProcess* instance = nullptr;
    std::wstring service;

    void SetUp() override {
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting(dir.path());
        // The module keeps its notes in the run directory of the service's installation.
        fs::create_directories(dir / "config");
        WriteFile(dir / "config/machine.json", R"({"runDir": ")" + (dir / "run").string() + R"(/"})");
        service = DE::ANSIToUnicode((dir / "qlbmainservice").string());
    }
    void TearDown() override {
        ReleaseMonProcess(module, instance);
        ZVPROCESS::HELPER::SetSelfDirectoryForTesting({});
    }
    void Install(const char* built, bool sign) {
        fs::remove(modulePath);  // a new file, never one a mapping may still hold
        fs::remove(modulePath.string() + ".minisig");
        fs::copy_file(built, modulePath);
        if (sign) {
            key.Sign(modulePath);
        }
    }
};

// The operations are called by their positions, the contract with separately built modules. The boot
// and shutdown notes answer only for the service that left them.
TEST_F(MonProcessLoad, SignedModuleLoadsWithItsOperationsAtTheirFixedPositions) {
    Install(QLB_MONPROCESS_DLL, true);
    ASSERT_TRUE(LoadMonProcess(module, instance));
    ASSERT_NE(instance, nullptr);
    void** table = *reinterpret_cast<void***>(instance);
    const auto version = reinterpret_cast<DWORD (*)(MonProcess*)>(table[3]);
    const auto kill = reinterpret_cast<long (*)(MonProcess*, DWORD)>(table[10]);
    const auto bootAlive = reinterpret_cast<long (*)(MonProcess*, const wchar_t*)>(table[24]);
    const auto queryBootAlive = reinterpret_cast<long (*)(MonProcess*, const wchar_t*, DWORD*)>(table[25]);
    const auto shutdownNotice = reinterpret_cast<long (*)(MonProcess*, const wchar_t*)>(table[26]);
    EXPECT_EQ(version(instance), 1u);
    EXPECT_EQ(kill(instance, 1), static_cast<long>(win::ERROR_ACCESS_DENIED));

    EXPECT_EQ(bootAlive(instance, service.c_str()), 0);
    DWORD alive = 9;
    EXPECT_EQ(queryBootAlive(instance, service.c_str(), &alive), 0);
    EXPECT_EQ(alive, 1u);
    const std::wstring other = DE::ANSIToUnicode((dir / "other/qlbmainservice").string());
    EXPECT_EQ(queryBootAlive(instance, other.c_str(), &alive), 0);
    EXPECT_EQ(alive, 0u);
    EXPECT_EQ(bootAlive(instance, L""), static_cast<long>(win::ERROR_INVALID_PARAMETER));

    EXPECT_EQ(shutdownNotice(instance, service.c_str()), 0);
    EXPECT_EQ(shutdownNotice(instance, service.c_str()), 0);
    const std::string notes = ReadFile(dir / "run/monprocess/shutdown");
    EXPECT_EQ(std::count(notes.begin(), notes.end(), '\n'), 2);
    EXPECT_NE(notes.find((dir / "qlbmainservice").string()), std::string::npos);
}

TEST_F(MonProcessLoad, AModuleWithoutAGoodSignatureIsNeverLoaded) {
    MinisignKey stranger(dir.path(), "stranger");
    const struct {
        const char* name;
        std::function<void()> install;
    } cases[] = {
        {"missing", [&] { fs::remove(modulePath); }},
        {"unsigned", [&] { Install(QLB_MONPROCESS_DLL, false); }},
        {"signed by an untrusted key",
         [&] {
             Install(QLB_MONPROCESS_DLL, false);
             stranger.Sign(modulePath);
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.install();
        EXPECT_FALSE(LoadMonProcess(module, instance));
        EXPECT_EQ(module, nullptr);
        EXPECT_EQ(instance, nullptr);
        EXPECT_FALSE(Mapped(modulePath));
    }
}

TEST_F(MonProcessLoad, InitializeOtherThanOneFailsTheLoadAndALaterLoadGetsTheNewlyCheckedFile) {
    Install(QLB_MONPROCESS_INIT2_DLL, true);  // this build's Initialize gives 2
    EXPECT_FALSE(LoadMonProcess(module, instance));
    EXPECT_NE(module, nullptr) << "both are left for the caller to release";
    EXPECT_NE(instance, nullptr);
    ReleaseMonProcess(module, instance);
    EXPECT_EQ(module, nullptr);
    EXPECT_EQ(instance, nullptr);
    // A module may stay mapped after it was released; a later load of another file must still get the
    // file that was checked, not the earlier one.
    Install(QLB_MONPROCESS_DLL, true);
    EXPECT_TRUE(LoadMonProcess(module, instance));
    ReleaseMonProcess(module, instance);
    Install(QLB_MONPROCESS_INIT2_DLL, true);
    EXPECT_FALSE(LoadMonProcess(module, instance));
}

TEST_F(MonProcessLoad, KillProcessEndsARunningProcessButNotTheFirstNorItsCaller) {
    Install(QLB_MONPROCESS_DLL, true);
    ASSERT_TRUE(LoadMonProcess(module, instance));
    HelperProcess child(InstallHelper(dir.path(), "Tessalink.exe"));
    EXPECT_EQ(instance->KillProcess(static_cast<DWORD>(child.pid())), 0);
    EXPECT_TRUE(Eventually([&] { return child.Ended(); }));
    for (const DWORD pid : {0u, 1u, static_cast<DWORD>(::getpid())}) {
        EXPECT_EQ(instance->KillProcess(pid), static_cast<long>(win::ERROR_ACCESS_DENIED)) << pid;
    }
    EXPECT_EQ(instance->KillProcess(0x7FFFFFF0), static_cast<long>(win::ERROR_INVALID_PARAMETER));
}

}  // namespace
