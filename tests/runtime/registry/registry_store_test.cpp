// The store's semantics: names, limits, types, delete rules, hives and files that are not a store.

#include "runtime/registry/registry_store.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/temp_dir.h"

namespace qlb::registry {
namespace {

using testing::TempDir;

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto opened = RegistryStore::Open(dir_ / "machine" / "registry.db");
        ASSERT_TRUE(opened) << opened.error;
        store_ = opened.value;
    }
    std::wstring ReadText(HKEY root, const std::wstring& key, const std::wstring& name) {
        auto read = store_->GetValue(root, key, name);
        return read ? read.value.text : L"<error " + std::to_wstring(read.error) + L">";
    }

    TempDir dir_;
    std::shared_ptr<RegistryStore> store_;
};

TEST_F(StoreTest, NamesCompareWithoutCaseAndKeepTheirFirstSpelling) {
    ASSERT_TRUE(
        store_->SetValue(HKEY_LOCAL_MACHINE, L"Software\\Tessalink", RegValue::String(L"Mode", L"a")));
    ASSERT_TRUE(
        store_->SetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TESSALINK", RegValue::String(L"MODE", L"b")));
    EXPECT_EQ(ReadText(HKEY_LOCAL_MACHINE, L"software\\tessalink", L"mode"), L"b");

    auto keys = store_->EnumSubkeys(HKEY_LOCAL_MACHINE, L"");
    ASSERT_TRUE(keys);
    EXPECT_EQ(keys.value, std::vector<std::wstring>{L"Software"});
    auto values = store_->EnumValues(HKEY_LOCAL_MACHINE, L"Software\\Tessalink");
    ASSERT_TRUE(values);
    ASSERT_EQ(values.value.size(), 1u);
    EXPECT_EQ(values.value[0].name, L"Mode");
}

TEST_F(StoreTest, CaseFoldingCoversLettersBeyondAscii) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Ключ\\Äpfel\\Łódź", RegValue::String(L"Ωmega", L"x")));
    EXPECT_EQ(ReadText(HKEY_LOCAL_MACHINE, L"КЛЮЧ\\äPFEL\\łÓDŹ", L"ωMEGA"), L"x");
    // Different letters stay different.
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Ключ\\Apfel"));
}

TEST_F(StoreTest, LeadingAndTrailingBackslashesAreIgnored) {
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"\\SYSTEM\\Setup\\"));
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"SYSTEM\\Setup"));
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"\\system\\setup"));
}

TEST_F(StoreTest, EmptyNameInsidePathIsABadKey) {
    EXPECT_EQ(store_->CreateKey(HKEY_LOCAL_MACHINE, L"a\\\\b").error, win::ERROR_BADKEY);
    EXPECT_EQ(store_->SetValue(HKEY_LOCAL_MACHINE, L"\\\\a", RegValue::Dword(L"v", 1)).error,
              win::ERROR_BADKEY);
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"a"));
}

TEST_F(StoreTest, NameLengthLimitsHoldAtTheirEdges) {
    const std::wstring longest(kMaxKeyNameLength, L'k');
    EXPECT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Limits\\" + longest));
    EXPECT_EQ(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Limits\\" + longest + L"k").error,
              win::ERROR_INVALID_PARAMETER);

    const std::wstring longestValue(kMaxValueNameLength, L'v');
    EXPECT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Limits", RegValue::Dword(longestValue, 1)));
    EXPECT_EQ(store_->SetValue(HKEY_LOCAL_MACHINE, L"Limits", RegValue::Dword(longestValue + L"v", 1)).error,
              win::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, L"Limits", longestValue + L"v").error,
              win::ERROR_INVALID_PARAMETER);
}

TEST_F(StoreTest, TreeDepthIsLimited) {
    std::wstring deepest;
    for (std::size_t i = 0; i < kMaxKeyDepth; ++i) {
        deepest += (i ? L"\\" : L"") + std::wstring(L"d");
    }
    EXPECT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, deepest));
    EXPECT_EQ(store_->CreateKey(HKEY_LOCAL_MACHINE, deepest + L"\\d").error, win::ERROR_INVALID_PARAMETER);
}

TEST_F(StoreTest, ValuesKeepTheirTypes) {
    const std::wstring key = L"Types";
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::String(L"s", L"héllo wörld ✓")));
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::Dword(L"d", 0xFFFFFFFFu)));
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::Qword(L"q", 0x8000000000000001ULL)));
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::Binary(L"b", {0, 1, 0xFF, 0})));
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key,
                                 RegValue::String(L"m", std::wstring(L"a\0b\0", 4), kRegMultiSz)));
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::String(L"", L"default")));

    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, key, L"s").value,
              RegValue::String(L"s", L"héllo wörld ✓"));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, key, L"d").value, RegValue::Dword(L"d", 0xFFFFFFFFu));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, key, L"q").value,
              RegValue::Qword(L"q", 0x8000000000000001ULL));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, key, L"b").value, RegValue::Binary(L"b", {0, 1, 0xFF, 0}));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, key, L"m").value.text, std::wstring(L"a\0b\0", 4));
    EXPECT_EQ(ReadText(HKEY_LOCAL_MACHINE, key, L""), L"default");

    // Overwriting changes the type as well.
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::Dword(L"S", 7)));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, key, L"s").value.type, REG_DWORD);
}

TEST_F(StoreTest, ValuesAreListedInTheOrderTheyWereFirstSet) {
    for (const wchar_t* name : {L"zeta", L"alpha", L"mid"}) {
        ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Order", RegValue::Dword(name, 1)));
    }
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Order", RegValue::Dword(L"ZETA", 2)));
    for (const wchar_t* sub : {L"b", L"C", L"a"}) {
        ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, std::wstring(L"Order\\") + sub));
    }
    auto values = store_->EnumValues(HKEY_LOCAL_MACHINE, L"Order");
    ASSERT_TRUE(values);
    ASSERT_EQ(values.value.size(), 3u);
    EXPECT_EQ(values.value[0].name, L"zeta");
    EXPECT_EQ(values.value[0].number, 2u);
    EXPECT_EQ(values.value[2].name, L"mid");
    EXPECT_EQ(store_->EnumSubkeys(HKEY_LOCAL_MACHINE, L"Order").value,
              (std::vector<std::wstring>{L"a", L"b", L"C"}));
}

TEST_F(StoreTest, MissingKeysAndValuesAreNotFound) {
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, L"Nope", L"x").error, win::ERROR_FILE_NOT_FOUND);
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Here"));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, L"Here", L"x").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->DeleteValue(HKEY_LOCAL_MACHINE, L"Here", L"x").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->EnumSubkeys(HKEY_LOCAL_MACHINE, L"Nope").error, win::ERROR_FILE_NOT_FOUND);
    // Without createKey a value is not written into a missing key.
    EXPECT_EQ(store_->SetValue(HKEY_LOCAL_MACHINE, L"Nope", RegValue::Dword(L"x", 1), false).error,
              win::ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Nope"));
}

TEST_F(StoreTest, DeleteKeyRefusesKeysWithSubkeys) {
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Parent\\Child"));
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Parent", RegValue::Dword(L"v", 1)));
    EXPECT_EQ(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"Parent").error, win::ERROR_ACCESS_DENIED);
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Parent\\Child"));

    EXPECT_TRUE(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"PARENT\\child"));
    EXPECT_TRUE(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"Parent"));
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Parent"));
    EXPECT_EQ(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"Parent").error, win::ERROR_FILE_NOT_FOUND);
}

TEST_F(StoreTest, DeletedKeyTakesItsValuesAlong) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Gone", RegValue::Dword(L"v", 1)));
    ASSERT_TRUE(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"Gone"));
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Gone"));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, L"Gone", L"v").error, win::ERROR_FILE_NOT_FOUND);
}

TEST_F(StoreTest, DeleteTreeRemovesTheWholeSubtreeAndNothingElse) {
    ASSERT_TRUE(store_->SetValue(HKEY_USERS, L"S-1-22-1-1000\\Software\\A\\B\\C", RegValue::Dword(L"v", 1)));
    ASSERT_TRUE(store_->SetValue(HKEY_USERS, L"S-1-22-1-1000\\Software\\A\\D", RegValue::Dword(L"v", 1)));
    ASSERT_TRUE(store_->SetValue(HKEY_USERS, L"S-1-22-1-1000\\Software\\AB", RegValue::Dword(L"v", 1)));
    ASSERT_TRUE(store_->DeleteTree(HKEY_USERS, L"s-1-22-1-1000\\software\\a"));
    EXPECT_FALSE(store_->OpenKey(HKEY_USERS, L"S-1-22-1-1000\\Software\\A"));
    EXPECT_TRUE(store_->GetValue(HKEY_USERS, L"S-1-22-1-1000\\Software\\AB", L"v"));
    // Nothing of the old tree comes back when its path is made again.
    ASSERT_TRUE(store_->CreateKey(HKEY_USERS, L"S-1-22-1-1000\\Software\\A"));
    EXPECT_TRUE(store_->EnumSubkeys(HKEY_USERS, L"S-1-22-1-1000\\Software\\A").value.empty());
    EXPECT_EQ(store_->DeleteTree(HKEY_USERS, L"S-1-22-1-1000\\Missing").error, win::ERROR_FILE_NOT_FOUND);
}

TEST_F(StoreTest, HiveRootsCannotBeDeleted) {
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Keep"));
    EXPECT_EQ(store_->DeleteTree(HKEY_LOCAL_MACHINE, L"").error, win::ERROR_ACCESS_DENIED);
    EXPECT_EQ(store_->DeleteKey(HKEY_CURRENT_CONFIG, L"\\").error, win::ERROR_ACCESS_DENIED);
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Keep"));
}

TEST_F(StoreTest, HivesAreSeparateAndTakeBothHandleForms) {
    const HKEY roots[] = {HKEY_CLASSES_ROOT, HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, HKEY_USERS,
                          HKEY_CURRENT_CONFIG};
    for (HKEY root : roots) {
        ASSERT_TRUE(store_->SetValue(root, L"Same", RegValue::Dword(L"v", static_cast<DWORD>(root & 0xF))));
    }
    for (HKEY root : roots) {
        auto narrow = store_->GetValue(root & 0xFFFFFFFFULL, L"Same", L"v");
        ASSERT_TRUE(narrow);
        EXPECT_EQ(narrow.value.number, root & 0xF);
    }
    EXPECT_EQ(store_->CreateKey(0, L"x").error, win::ERROR_INVALID_HANDLE);
    EXPECT_EQ(store_->CreateKey(0xFFFFFFFF80000004ULL, L"x").error, win::ERROR_INVALID_HANDLE);
    EXPECT_EQ(store_->CreateKey(0x0000000180000002ULL, L"x").error, win::ERROR_INVALID_HANDLE);
    EXPECT_EQ(store_->GetValue(0x1234, L"x", L"v").error, win::ERROR_INVALID_HANDLE);
}

TEST_F(StoreTest, AWriteIsSeenByAnotherConnection) {
    auto other = RegistryStore::Open(store_->File());
    ASSERT_TRUE(other);
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Shared", RegValue::String(L"v", L"one")));
    EXPECT_EQ(other.value->GetValue(HKEY_LOCAL_MACHINE, L"Shared", L"v").value.text, L"one");
    ASSERT_TRUE(other.value->DeleteTree(HKEY_LOCAL_MACHINE, L"Shared"));
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Shared"));
}

TEST_F(StoreTest, StoreReopensWithItsContent) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Persist", RegValue::Dword(L"v", 42)));
    const auto file = store_->File();
    store_.reset();
    auto reopened = RegistryStore::Open(file);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened.value->GetValue(HKEY_LOCAL_MACHINE, L"Persist", L"v").value.number, 42u);
}

TEST_F(StoreTest, FullDiskFailsTheWriteAndKeepsTheStore) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Before", RegValue::String(L"v", L"kept")));
    StoreOptions options;
    options.maxPageCount = 8;
    auto capped = RegistryStore::Open(store_->File(), options);
    ASSERT_TRUE(capped);
    SysStatus status;
    for (int i = 0; i < 1000 && status; ++i) {
        status = capped.value->SetValue(HKEY_LOCAL_MACHINE, L"Fill\\" + std::to_wstring(i),
                                        RegValue::String(L"pad", std::wstring(2000, L'x')));
    }
    EXPECT_EQ(status.error, win::ERROR_DISK_FULL);
    EXPECT_EQ(ReadText(HKEY_LOCAL_MACHINE, L"Before", L"v"), L"kept");
    // The failed write left nothing half-done, and the store still takes small writes.
    EXPECT_TRUE(capped.value->SetValue(HKEY_LOCAL_MACHINE, L"Before", RegValue::String(L"v", L"after")));
    EXPECT_EQ(ReadText(HKEY_LOCAL_MACHINE, L"Before", L"v"), L"after");
}

TEST_F(StoreTest, KeyRemadeByAnotherConnectionIsNotReadThroughAStaleId) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Cached\\Key", RegValue::String(L"v", L"first")));
    ASSERT_EQ(ReadText(HKEY_LOCAL_MACHINE, L"Cached\\Key", L"v"), L"first");
    auto other = RegistryStore::Open(store_->File());
    ASSERT_TRUE(other);
    ASSERT_TRUE(other.value->DeleteTree(HKEY_LOCAL_MACHINE, L"Cached"));
    ASSERT_TRUE(other.value->SetValue(HKEY_LOCAL_MACHINE, L"Cached\\Key", RegValue::String(L"v", L"second")));
    EXPECT_EQ(ReadText(HKEY_LOCAL_MACHINE, L"Cached\\Key", L"v"), L"second");
    ASSERT_TRUE(other.value->DeleteTree(HKEY_LOCAL_MACHINE, L"Cached"));
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Cached\\Key"));
    EXPECT_EQ(store_->SetValue(HKEY_LOCAL_MACHINE, L"Cached\\Key", RegValue::Dword(L"v", 1), false).error,
              win::ERROR_FILE_NOT_FOUND);
}

TEST_F(StoreTest, KeysOfAFailedWriteAreNotRemembered) {
    StoreOptions options;
    options.maxPageCount = 8;
    auto capped = RegistryStore::Open(store_->File(), options);
    ASSERT_TRUE(capped);
    int failedAt = -1;
    for (int i = 0; i < 1000; ++i) {
        const auto status =
            capped.value->SetValue(HKEY_LOCAL_MACHINE, L"Fill\\" + std::to_wstring(i) + L"\\Deep",
                                   RegValue::String(L"pad", std::wstring(1500, L'x')));
        if (!status) {
            ASSERT_EQ(status.error, win::ERROR_DISK_FULL);
            failedAt = i;
            break;
        }
    }
    ASSERT_GE(failedAt, 0);
    const std::wstring failedKey = L"Fill\\" + std::to_wstring(failedAt) + L"\\Deep";
    EXPECT_FALSE(capped.value->OpenKey(HKEY_LOCAL_MACHINE, failedKey));
    // With room again, the same path is made for real and is seen by everyone.
    ASSERT_TRUE(capped.value->DeleteTree(HKEY_LOCAL_MACHINE, L"Fill\\0"));
    ASSERT_TRUE(capped.value->SetValue(HKEY_LOCAL_MACHINE, failedKey, RegValue::Dword(L"small", 1)));
    EXPECT_TRUE(store_->GetValue(HKEY_LOCAL_MACHINE, failedKey, L"small"));
}

// Files that are not a store.
class NotAStoreTest : public ::testing::Test {
  protected:
    std::string Contents(const std::filesystem::path& file) {
        std::ifstream in(file, std::ios::binary);
        std::ostringstream out;
        out << in.rdbuf();
        return out.str();
    }
    TempDir dir_;
};

TEST_F(NotAStoreTest, TextFileIsRefusedAndLeftAlone) {
    const auto file = dir_ / "registry.db";
    const std::string text = "this is not a registry at all, but it is longer than a header\n";
    std::ofstream(file) << text;
    auto opened = RegistryStore::Open(file);
    EXPECT_EQ(opened.error, win::ERROR_BADDB);
    EXPECT_EQ(Contents(file), text);
    EXPECT_FALSE(std::filesystem::exists(dir_ / "registry.db-wal"));
}

TEST_F(NotAStoreTest, ShortFileIsRefused) {
    const auto file = dir_ / "registry.db";
    std::ofstream(file) << "SQLite";
    EXPECT_EQ(RegistryStore::Open(file).error, win::ERROR_BADDB);
    EXPECT_EQ(Contents(file), "SQLite");
}

TEST_F(NotAStoreTest, OtherDatabaseIsRefusedAndLeftAlone) {
    const auto file = dir_ / "registry.db";
    {
        auto store = RegistryStore::Open(file);
        ASSERT_TRUE(store);
    }
    // Turn the store into someone else's database by changing its format mark.
    const std::string before = Contents(file);
    std::string changed = before;
    const auto at = changed.find("qlb-registry");
    ASSERT_NE(at, std::string::npos);
    changed.replace(at, 3, "xyz");
    std::ofstream(file, std::ios::binary | std::ios::trunc) << changed;
    std::filesystem::remove(dir_ / "registry.db-wal");
    std::filesystem::remove(dir_ / "registry.db-shm");

    EXPECT_EQ(RegistryStore::Open(file).error, win::ERROR_BADDB);
    EXPECT_EQ(Contents(file), changed);
}

TEST_F(NotAStoreTest, DamagedStoreIsRefusedAndNotMadeWorse) {
    const auto file = dir_ / "registry.db";
    {
        auto store = RegistryStore::Open(file);
        ASSERT_TRUE(store);
        ASSERT_TRUE(store.value->SetValue(HKEY_LOCAL_MACHINE, L"K", RegValue::Dword(L"v", 1)));
    }
    // Keep the header, scramble the schema page behind it.
    std::string damaged = Contents(file);
    ASSERT_GT(damaged.size(), 4096u);
    for (std::size_t i = 100; i < 4096; ++i) {
        damaged[i] = static_cast<char>(0xA5 ^ (i * 31));
    }
    std::ofstream(file, std::ios::binary | std::ios::trunc) << damaged;

    EXPECT_EQ(RegistryStore::Open(file).error, win::ERROR_BADDB);
    EXPECT_EQ(Contents(file), damaged);
}

TEST_F(NotAStoreTest, DirectoryIsRefused) {
    std::filesystem::create_directories(dir_ / "registry.db");
    EXPECT_EQ(RegistryStore::Open(dir_ / "registry.db").error, win::ERROR_BADDB);
}

TEST_F(NotAStoreTest, EmptyFileBecomesAStore) {
    std::ofstream(dir_ / "registry.db").flush();
    auto opened = RegistryStore::Open(dir_ / "registry.db");
    ASSERT_TRUE(opened);
    EXPECT_TRUE(opened.value->CreateKey(HKEY_LOCAL_MACHINE, L"x"));
}

}  // namespace
}  // namespace qlb::registry
