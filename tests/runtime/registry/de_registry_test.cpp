// DE::Registry over a store of the test's own, and over the store the machine profile names.

#include "runtime/registry/de_registry.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "runtime/common/machine_profile.h"
#include "runtime/registry/registry_store.h"
#include "runtime/registry/registry_watch.h"
#include "support/temp_dir.h"

namespace DE {
namespace {

using qlb::registry::RegistryStore;

class DeRegistryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto opened = RegistryStore::Open(dir_ / "registry.db");
        ASSERT_TRUE(opened);
        store_ = opened.value;
        RegistryStore::SetDefault(store_);
        reg_.SetRootKey(HKEY_USERS);
    }
    void TearDown() override { RegistryStore::SetDefault(nullptr); }

    qlb::testing::TempDir dir_;
    std::shared_ptr<RegistryStore> store_;
    Registry reg_;
};

TEST_F(DeRegistryTest, StaticFormReadsOnlyWhatWasWrittenWithItsType) {
    const std::wstring key = L"SOFTWARE\\Zorvane\\Tessalink";
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"UUID", std::wstring(L"abc-123")));
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"Start", DWORD{0xFFFFFFFE}));
    std::wstring text;
    EXPECT_TRUE(Registry::GetValue(HKEY_LOCAL_MACHINE, L"\\software\\zorvane\\tessalink", L"uuid", text));
    EXPECT_EQ(text, L"abc-123");
    int signedNumber = 0;
    EXPECT_TRUE(Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"Start", signedNumber));
    EXPECT_EQ(signedNumber, -2);

    // A wrong type, a missing value or key, a bad root or path fail and leave the output alone.
    DWORD number = 77;
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"UUID", number));
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, L"Missing", L"Start", number));
    EXPECT_EQ(number, 77u);
    text = L"unchanged";
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"Start", text));
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"missing", text));
    EXPECT_EQ(text, L"unchanged");
    EXPECT_FALSE(Registry::SetValue(0, L"x", L"v", 1));
}

TEST_F(DeRegistryTest, ObjectFormReportsEachFailureKind) {
    Registry unbound;
    EXPECT_FALSE(unbound.CreateKey(L"SOFTWARE"));
    EXPECT_EQ(unbound.LastError(), win::ERROR_INVALID_HANDLE);
    EXPECT_FALSE(reg_.KeyExists(L"S-1-5-18\\K"));
    EXPECT_EQ(reg_.LastError(), win::ERROR_FILE_NOT_FOUND);
    ASSERT_TRUE(Registry::SetValue(HKEY_USERS, L"S-1-5-18\\K\\Sub", L"second", 1));
    ASSERT_TRUE(Registry::SetValue(HKEY_USERS, L"S-1-5-18\\K\\Sub", L"first", 1));
    EXPECT_EQ(reg_.EnumSubkeys(L"s-1-5-18\\k"), std::vector<std::wstring>{L"Sub"});
    EXPECT_EQ(reg_.EnumValueNames(L"S-1-5-18\\K\\Sub"), (std::vector<std::wstring>{L"second", L"first"}));
    EXPECT_FALSE(reg_.DeleteKey(L"S-1-5-18\\K"));
    EXPECT_EQ(reg_.LastError(), win::ERROR_ACCESS_DENIED);

    ASSERT_TRUE(reg_.OpenKey(L"S-1-5-18\\K\\Sub"));
    EXPECT_TRUE(reg_.DeleteValue(L"FIRST"));
    EXPECT_FALSE(reg_.DeleteValue(L"first"));
    EXPECT_EQ(reg_.LastError(), win::ERROR_FILE_NOT_FOUND);
    // A failed open closes the key it had.
    EXPECT_FALSE(reg_.OpenKey(L"S-1-5-18\\Nope"));
    EXPECT_FALSE(reg_.DeleteValue(L"second"));
    EXPECT_EQ(reg_.LastError(), win::ERROR_INVALID_HANDLE);

    EXPECT_TRUE(reg_.RegDeleteAll(HKEY_USERS, L"S-1-5-18\\K"));
    EXPECT_TRUE(reg_.EnumSubkeys(L"S-1-5-18\\K").empty());
    EXPECT_EQ(reg_.LastError(), win::ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(reg_.OpenKey(HKEY_LOCAL_MACHINE, L"New\\Key", true));
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"New\\Key"));
}

TEST_F(DeRegistryTest, ThreadsOfOneProcessShareTheStoreSafely) {
    constexpr int kThreads = 4;
    constexpr int kValues = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kValues; ++i) {
                Registry::SetValue(HKEY_USERS, L"T\\t" + std::to_wstring(t), L"v" + std::to_wstring(i), i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(reg_.EnumValueNames(L"T\\t" + std::to_wstring(t)).size(),
                  static_cast<std::size_t>(kValues));
    }
}

TEST_F(DeRegistryTest, WatchOnTheProcessStoreSeesStaticWrites) {
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"SYSTEM\\Svc", L"Start", 2));
    auto watch = qlb::registry::RegistryWatch::Create(HKEY_LOCAL_MACHINE, L"SYSTEM\\Svc", true);
    ASSERT_TRUE(watch);
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"SYSTEM\\Svc", L"Start", 4));
    EXPECT_EQ(watch.value->WaitForChange(20000), qlb::registry::RegistryWatch::WaitResult::Changed);
}

// Without a store given, the process opens the one the machine profile names, on first use.
TEST(DeRegistryDefaultStoreTest, OpensTheMachineProfilesStoreLazilyOrFailsEveryCall) {
    qlb::testing::TempDir dir;
    const auto saved = qlb::MachineProfile::Current();
    qlb::MachineProfile profile = saved;
    profile.registry = dir / "var" / "lib" / "registry.db";
    qlb::MachineProfile::SetCurrent(profile);
    RegistryStore::SetDefault(nullptr);
    EXPECT_FALSE(std::filesystem::exists(profile.registry));
    EXPECT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zorvane", L"v", 5));
    auto direct = RegistryStore::Open(profile.registry);
    ASSERT_TRUE(direct);
    EXPECT_EQ(direct.value->GetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zorvane", L"v").value.number, 5u);

    profile.registry = dir / "registry.db";
    std::ofstream(profile.registry) << "not a registry, and never to be overwritten by one";
    qlb::MachineProfile::SetCurrent(profile);
    RegistryStore::SetDefault(nullptr);
    Registry reg;
    reg.SetRootKey(HKEY_LOCAL_MACHINE);
    EXPECT_FALSE(reg.CreateKey(L"K"));
    EXPECT_EQ(reg.LastError(), win::ERROR_BADDB);

    RegistryStore::SetDefault(nullptr);
    qlb::MachineProfile::SetCurrent(saved);
}

}  // namespace
}  // namespace DE
