// DE::Registry over a store of the test's own.

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
    }
    void TearDown() override { RegistryStore::SetDefault(nullptr); }

    qlb::testing::TempDir dir_;
    std::shared_ptr<RegistryStore> store_;
};

TEST_F(DeRegistryTest, StaticFormWritesAndReadsStringsAndNumbers) {
    const std::wstring key = L"SOFTWARE\\Zorvane\\Tessalink";
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"UUID", std::wstring(L"abc-123")));
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"install_flag", 1));
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"Start", DWORD{0xFFFFFFFE}));

    std::wstring text;
    EXPECT_TRUE(Registry::GetValue(HKEY_LOCAL_MACHINE, L"\\software\\zorvane\\tessalink", L"uuid", text));
    EXPECT_EQ(text, L"abc-123");
    DWORD number = 0;
    EXPECT_TRUE(Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"install_flag", number));
    EXPECT_EQ(number, 1u);
    int signedNumber = 0;
    EXPECT_TRUE(Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"Start", signedNumber));
    EXPECT_EQ(signedNumber, -2);
}

TEST_F(DeRegistryTest, ReadingWithTheWrongTypeFailsAndLeavesTheOutputAlone) {
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"T", L"s", std::wstring(L"5")));
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"T", L"n", 5));
    DWORD number = 77;
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, L"T", L"s", number));
    EXPECT_EQ(number, 77u);
    std::wstring text = L"unchanged";
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, L"T", L"n", text));
    EXPECT_EQ(text, L"unchanged");
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, L"T", L"missing", text));
    EXPECT_FALSE(Registry::GetValue(HKEY_LOCAL_MACHINE, L"Missing", L"n", number));
}

TEST_F(DeRegistryTest, StaticFormFailsOnBadRootsAndPaths) {
    EXPECT_FALSE(Registry::SetValue(0, L"x", L"v", 1));
    EXPECT_FALSE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"a\\\\b", L"v", 1));
    EXPECT_FALSE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"x", std::wstring(16384, L'n'), 1));
}

TEST_F(DeRegistryTest, ObjectWithoutRootFailsWithInvalidHandle) {
    Registry reg;
    EXPECT_FALSE(reg.KeyExists(L"SOFTWARE"));
    EXPECT_EQ(reg.LastError(), win::ERROR_INVALID_HANDLE);
    EXPECT_FALSE(reg.CreateKey(L"SOFTWARE"));
    EXPECT_FALSE(reg.DeleteValue(L"x"));
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE"));
}

TEST_F(DeRegistryTest, CreateKeyMakesParentsAndKeyExistsSeesThem) {
    Registry reg;
    reg.SetRootKey(HKEY_LOCAL_MACHINE);
    EXPECT_FALSE(reg.KeyExists(L"SOFTWARE\\Zorvane\\Tessalink"));
    EXPECT_EQ(reg.LastError(), win::ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(reg.CreateKey(L"SOFTWARE\\Zorvane\\Tessalink"));
    EXPECT_TRUE(reg.KeyExists(L"SOFTWARE\\Zorvane"));
    EXPECT_TRUE(reg.KeyExists(L"software\\zorvane\\tessalink"));
    // Creating an existing key succeeds.
    EXPECT_TRUE(reg.CreateKey(L"SOFTWARE\\Zorvane"));
}

TEST_F(DeRegistryTest, DeleteValueWorksOnTheOpenedKeyOnly) {
    ASSERT_TRUE(Registry::SetValue(HKEY_USERS, L"S-1-5-18\\K", L"v", 1));
    ASSERT_TRUE(Registry::SetValue(HKEY_USERS, L"S-1-5-18\\Other", L"v", 1));
    Registry reg;
    reg.SetRootKey(HKEY_USERS);
    EXPECT_FALSE(reg.DeleteValue(L"v"));  // nothing opened yet
    ASSERT_TRUE(reg.OpenKey(L"S-1-5-18\\K"));
    EXPECT_TRUE(reg.DeleteValue(L"V"));
    EXPECT_FALSE(reg.DeleteValue(L"v"));
    EXPECT_EQ(reg.LastError(), win::ERROR_FILE_NOT_FOUND);
    DWORD number = 0;
    EXPECT_TRUE(Registry::GetValue(HKEY_USERS, L"S-1-5-18\\Other", L"v", number));

    // A failed open closes the key it had.
    EXPECT_FALSE(reg.OpenKey(L"S-1-5-18\\Nope"));
    EXPECT_FALSE(reg.DeleteValue(L"v"));
    EXPECT_EQ(reg.LastError(), win::ERROR_INVALID_HANDLE);
}

TEST_F(DeRegistryTest, OpenKeyWithCreateMakesTheKey) {
    Registry reg;
    EXPECT_FALSE(reg.OpenKey(HKEY_LOCAL_MACHINE, L"New\\Key"));
    EXPECT_TRUE(reg.OpenKey(HKEY_LOCAL_MACHINE, L"New\\Key", true));
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"New\\Key"));
}

TEST_F(DeRegistryTest, DeleteKeyAndRegDeleteAll) {
    ASSERT_TRUE(Registry::SetValue(HKEY_USERS, L"S-1-22-1-1000\\Software\\Tessalink\\A", L"v", 1));
    Registry reg;
    reg.SetRootKey(HKEY_USERS);
    EXPECT_FALSE(reg.DeleteKey(L"S-1-22-1-1000\\Software\\Tessalink"));
    EXPECT_EQ(reg.LastError(), win::ERROR_ACCESS_DENIED);
    EXPECT_TRUE(reg.RegDeleteAll(HKEY_USERS, L"S-1-22-1-1000\\Software\\Tessalink"));
    EXPECT_FALSE(reg.KeyExists(L"S-1-22-1-1000\\Software\\Tessalink"));
    EXPECT_TRUE(reg.KeyExists(L"S-1-22-1-1000\\Software"));
    EXPECT_FALSE(reg.RegDeleteAll(L"S-1-22-1-1000\\Software\\Tessalink"));
}

TEST_F(DeRegistryTest, EnumerationListsSubkeysAndValueNames) {
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"E\\b", L"x", 1));
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"E\\A", L"x", 1));
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"E", L"second", 1));
    ASSERT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"E", L"first", 1));
    Registry reg;
    reg.SetRootKey(HKEY_LOCAL_MACHINE);
    EXPECT_EQ(reg.EnumSubkeys(L"E"), (std::vector<std::wstring>{L"A", L"b"}));
    EXPECT_EQ(reg.EnumValueNames(L"E"), (std::vector<std::wstring>{L"second", L"first"}));
    EXPECT_TRUE(reg.EnumSubkeys(L"Missing").empty());
    EXPECT_EQ(reg.LastError(), win::ERROR_FILE_NOT_FOUND);
}

TEST_F(DeRegistryTest, ThreadsOfOneProcessShareTheStoreSafely) {
    constexpr int kThreads = 4;
    constexpr int kValues = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::wstring key = L"Threads\\t" + std::to_wstring(t);
            for (int i = 0; i < kValues; ++i) {
                Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"v" + std::to_wstring(i), i);
                DWORD back = 0;
                Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"v" + std::to_wstring(i), back);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    Registry reg;
    reg.SetRootKey(HKEY_LOCAL_MACHINE);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(reg.EnumValueNames(L"Threads\\t" + std::to_wstring(t)).size(),
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
TEST(DeRegistryDefaultStoreTest, OpensTheMachineProfilesStoreLazily) {
    qlb::testing::TempDir dir;
    const auto saved = qlb::MachineProfile::Current();
    qlb::MachineProfile profile = saved;
    profile.registry = dir / "var" / "lib" / "registry.db";
    qlb::MachineProfile::SetCurrent(profile);
    RegistryStore::SetDefault(nullptr);

    EXPECT_FALSE(std::filesystem::exists(profile.registry));
    EXPECT_TRUE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zorvane", L"v", 5));
    EXPECT_TRUE(std::filesystem::exists(profile.registry));
    auto direct = RegistryStore::Open(profile.registry);
    ASSERT_TRUE(direct);
    EXPECT_EQ(direct.value->GetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zorvane", L"v").value.number, 5u);

    RegistryStore::SetDefault(nullptr);
    qlb::MachineProfile::SetCurrent(saved);
}

TEST(DeRegistryDefaultStoreTest, UnreadableStoreMakesEveryCallFail) {
    qlb::testing::TempDir dir;
    const auto saved = qlb::MachineProfile::Current();
    qlb::MachineProfile profile = saved;
    profile.registry = dir / "registry.db";
    std::ofstream(profile.registry) << "not a registry, and never to be overwritten by one";
    qlb::MachineProfile::SetCurrent(profile);
    RegistryStore::SetDefault(nullptr);

    EXPECT_FALSE(Registry::SetValue(HKEY_LOCAL_MACHINE, L"K", L"v", 1));
    Registry reg;
    reg.SetRootKey(HKEY_LOCAL_MACHINE);
    EXPECT_FALSE(reg.CreateKey(L"K"));
    EXPECT_EQ(reg.LastError(), win::ERROR_BADDB);

    RegistryStore::SetDefault(nullptr);
    qlb::MachineProfile::SetCurrent(saved);
}

}  // namespace
}  // namespace DE
