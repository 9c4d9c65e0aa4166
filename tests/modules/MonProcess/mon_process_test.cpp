// The process monitor module and its loader: only a module with a good signature is ever loaded, the
// operations sit at their fixed positions, and the service's operations do their work.

#include <dlfcn.h>
#include <unistd.h>

#include <gtest/gtest.h>

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
    TempDir dir;
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
        fs::copy_file(built, modulePath, fs::copy_options::overwrite_existing);
        if (sign) {
            key.Sign(modulePath);
        }
    }
    bool ModuleMapped() const {
        void* h = ::dlopen(modulePath.c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (h != nullptr) {
            ::dlclose(h);
        }
        return h != nullptr;
    }
};

TEST_F(MonProcessLoad, SignedModuleLoadsAndInitialises) {
    Install(QLB_MONPROCESS_DLL, true);
    ASSERT_TRUE(LoadMonProcess(module, instance));
    ASSERT_NE(instance, nullptr);
    EXPECT_TRUE(ModuleMapped());
    DWORD running = 0;
    EXPECT_EQ(instance->QueryDriverStatus(&running), 0);
    EXPECT_EQ(running, 1u);
    ReleaseMonProcess(module, instance);
    EXPECT_EQ(module, nullptr);
    EXPECT_EQ(instance, nullptr);
}

// A module may stay mapped after it was released; a later load of another file must still get the
// file that was checked, not the earlier one.
TEST_F(MonProcessLoad, ALaterLoadGetsTheNewlyCheckedFileNotAnEarlierOne) {
    Install(QLB_MONPROCESS_DLL, true);
    ASSERT_TRUE(LoadMonProcess(module, instance));
    ReleaseMonProcess(module, instance);
    fs::remove(modulePath);
    Install(QLB_MONPROCESS_INIT2_DLL, true);
    EXPECT_FALSE(LoadMonProcess(module, instance));  // the second build's Initialize gives 2
    ReleaseMonProcess(module, instance);
    fs::remove(modulePath);
    Install(QLB_MONPROCESS_DLL, true);
    EXPECT_TRUE(LoadMonProcess(module, instance));
}

TEST_F(MonProcessLoad, MissingModuleIsNotLoaded) {
    EXPECT_FALSE(LoadMonProcess(module, instance));
    EXPECT_EQ(module, nullptr);
    EXPECT_EQ(instance, nullptr);
}

TEST_F(MonProcessLoad, UnsignedModuleIsNeverLoaded) {
    Install(QLB_MONPROCESS_DLL, false);
    EXPECT_FALSE(LoadMonProcess(module, instance));
    EXPECT_EQ(module, nullptr);
    EXPECT_FALSE(ModuleMapped());
}

TEST_F(MonProcessLoad, ModuleAlteredAfterSigningIsNeverLoaded) {
    Install(QLB_MONPROCESS_DLL, true);
    std::ofstream(modulePath, std::ios::app | std::ios::binary) << '\0';
    EXPECT_FALSE(LoadMonProcess(module, instance));
    EXPECT_EQ(module, nullptr);
    EXPECT_FALSE(ModuleMapped());
}

TEST_F(MonProcessLoad, ModuleSignedByAnUntrustedKeyIsNeverLoaded) {
    MinisignKey stranger(dir.path(), "stranger");
    fs::copy_file(QLB_MONPROCESS_DLL, modulePath);
    stranger.Sign(modulePath);
    EXPECT_FALSE(LoadMonProcess(module, instance));
    EXPECT_FALSE(ModuleMapped());
}

TEST_F(MonProcessLoad, InitializeOtherThanOneFailsTheLoadButLeavesBothForTheCaller) {
    Install(QLB_MONPROCESS_INIT2_DLL, true);
    EXPECT_FALSE(LoadMonProcess(module, instance));
    EXPECT_NE(module, nullptr);
    EXPECT_NE(instance, nullptr);
    ReleaseMonProcess(module, instance);
    EXPECT_EQ(module, nullptr);
    EXPECT_EQ(instance, nullptr);
}

// The positions of the operations are the contract with separately built modules.
TEST_F(MonProcessLoad, OperationsSitAtTheirFixedPositions) {
    Install(QLB_MONPROCESS_DLL, true);
    ASSERT_TRUE(LoadMonProcess(module, instance));
    void** table = *reinterpret_cast<void***>(instance);
    using GetVersionFn = DWORD (*)(MonProcess*);
    using KillFn = long (*)(MonProcess*, DWORD);
    using PathFn = long (*)(MonProcess*, const wchar_t*);
    using QueryAliveFn = long (*)(MonProcess*, const wchar_t*, DWORD*);
    EXPECT_EQ(reinterpret_cast<GetVersionFn>(table[3])(instance), 1u);
    EXPECT_EQ(reinterpret_cast<KillFn>(table[10])(instance, 1), static_cast<long>(win::ERROR_ACCESS_DENIED));
    EXPECT_EQ(reinterpret_cast<PathFn>(table[24])(instance, service.c_str()), 0);
    DWORD alive = 0;
    EXPECT_EQ(reinterpret_cast<QueryAliveFn>(table[25])(instance, service.c_str(), &alive), 0);
    EXPECT_EQ(alive, 1u);
    EXPECT_EQ(reinterpret_cast<PathFn>(table[26])(instance, service.c_str()), 0);
    EXPECT_TRUE(fs::exists(dir / "run/monprocess/shutdown"));
}

class MonProcessOperations : public MonProcessLoad {
  protected:
    void SetUp() override {
        MonProcessLoad::SetUp();
        Install(QLB_MONPROCESS_DLL, true);
        ASSERT_TRUE(LoadMonProcess(module, instance));
    }
};

TEST_F(MonProcessOperations, KillProcessEndsARunningProcess) {
    ChildProcess child(InstallHelper(dir.path(), "Tessalink.exe"));
    EXPECT_EQ(instance->KillProcess(static_cast<DWORD>(child.pid())), 0);
    EXPECT_TRUE(WaitUntil([&] { return child.Ended(); }));
}

TEST_F(MonProcessOperations, KillProcessRefusesTheFirstProcessAndItsCaller) {
    EXPECT_EQ(instance->KillProcess(0), static_cast<long>(win::ERROR_ACCESS_DENIED));
    EXPECT_EQ(instance->KillProcess(1), static_cast<long>(win::ERROR_ACCESS_DENIED));
    EXPECT_EQ(instance->KillProcess(static_cast<DWORD>(::getpid())),
              static_cast<long>(win::ERROR_ACCESS_DENIED));
}

TEST_F(MonProcessOperations, KillProcessOfAVanishedProcessFails) {
    EXPECT_EQ(instance->KillProcess(0x7FFFFFF0), static_cast<long>(win::ERROR_INVALID_PARAMETER));
}

TEST_F(MonProcessOperations, BootNoteAnswersOnlyForTheServiceThatLeftIt) {
    EXPECT_EQ(instance->BootAlive(service.c_str()), 0);
    DWORD alive = 9;
    EXPECT_EQ(instance->QueryBootAlive(service.c_str(), &alive), 0);
    EXPECT_EQ(alive, 1u);
    EXPECT_EQ(
        instance->QueryBootAlive(DE::ANSIToUnicode((dir / "other/qlbmainservice").string()).c_str(), &alive),
        0);
    EXPECT_EQ(alive, 0u);
    EXPECT_EQ(instance->BootAlive(L""), static_cast<long>(win::ERROR_INVALID_PARAMETER));
}

TEST_F(MonProcessOperations, ShutdownNoticesAccumulate) {
    EXPECT_EQ(instance->ShutdownNotice(service.c_str()), 0);
    EXPECT_EQ(instance->ShutdownNotice(service.c_str()), 0);
    const std::string notes = ReadFile(dir / "run/monprocess/shutdown");
    EXPECT_EQ(std::count(notes.begin(), notes.end(), '\n'), 2);
    EXPECT_NE(notes.find((dir / "qlbmainservice").string()), std::string::npos);
}

TEST_F(MonProcessOperations, OnlyTheMonitorInterfaceIsHandedOut) {
    void* object = reinterpret_cast<void*>(0x1);
    const ZvGuid other{0x12345678, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
    EXPECT_EQ(instance->QueryInterface(&other, &object), MONPROCESS_E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    auto create = reinterpret_cast<ZvCreateInstanceFn>(::dlsym(module, kZvCreateInstanceName));
    ASSERT_NE(create, nullptr);
    EXPECT_EQ(create(&other, &object), MONPROCESS_E_NOINTERFACE);
    EXPECT_EQ(create(&IID_MonProcess, &object), MONPROCESS_S_OK);
    EXPECT_EQ(object, instance);
}

}  // namespace
