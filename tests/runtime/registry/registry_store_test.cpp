// The store's semantics: names, limits, types, delete rules, hives, a full disk and files that are not
// a store.

#include "runtime/registry/registry_store.h"

#include <gtest/gtest.h>

#include <fstream>

#include "runtime/common/strings.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace qlb::registry {
namespace {

using testing::ReadFile;
using testing::TempDir;

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto opened = RegistryStore::Open(dir_ / "machine" / "registry.db");
        ASSERT_TRUE(opened) << opened.error;
        store_ = opened.value;
    }
    std::wstring ReadText(const std::wstring& key, const std::wstring& name) {
        auto read = store_->GetValue(HKEY_LOCAL_MACHINE, key, name);
        return read ? read.value.text : L"<error " + std::to_wstring(read.error) + L">";
    }

    TempDir dir_;
    std::shared_ptr<RegistryStore> store_;
};

TEST_F(StoreTest, NamesCompareWithoutCaseAndKeepTheirFirstSpelling) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"\\Software\\Ключ\\", RegValue::String(L"Mode", L"a")));
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\КЛЮЧ", RegValue::String(L"MODE", L"b")));
    EXPECT_EQ(ReadText(L"software\\ключ", L"mode"), L"b");
    EXPECT_EQ(store_->EnumSubkeys(HKEY_LOCAL_MACHINE, L"").value, std::vector<std::wstring>{L"Software"});
    EXPECT_EQ(store_->EnumSubkeys(HKEY_LOCAL_MACHINE, L"software").value, std::vector<std::wstring>{L"Ключ"});
    EXPECT_EQ(store_->EnumValues(HKEY_LOCAL_MACHINE, L"Software\\Ключ").value,
              std::vector<RegValue>{RegValue::String(L"Mode", L"b")});
    // Different letters stay different.
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Software\\Kлюч"));
    // Subkeys are listed in name order without regard to case.
    for (const wchar_t* sub : {L"b", L"C", L"a"}) {
        ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, std::wstring(L"Order\\") + sub));
    }
    EXPECT_EQ(store_->EnumSubkeys(HKEY_LOCAL_MACHINE, L"Order").value,
              (std::vector<std::wstring>{L"a", L"b", L"C"}));
}

TEST_F(StoreTest, PathsAndHandlesAreCheckedAtTheirLimits) {
    const std::wstring longest(kMaxKeyNameLength, L'k');
    std::wstring deepest = L"d";
    for (std::size_t i = 1; i < kMaxKeyDepth; ++i) {
        deepest += L"\\d";
    }
    EXPECT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Limits\\" + longest));
    EXPECT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, deepest));
    const struct {
        HKEY root;
        std::wstring path;
        std::uint32_t error;
    } refused[] = {
        {HKEY_LOCAL_MACHINE, L"a\\\\b", win::ERROR_BADKEY},
        {HKEY_LOCAL_MACHINE, L"\\\\a", win::ERROR_BADKEY},
        {HKEY_LOCAL_MACHINE, L"Limits\\" + longest + L"k", win::ERROR_INVALID_PARAMETER},
        {HKEY_LOCAL_MACHINE, deepest + L"\\d", win::ERROR_INVALID_PARAMETER},
        {0, L"x", win::ERROR_INVALID_HANDLE},
        {0xFFFFFFFF80000004ULL, L"x", win::ERROR_INVALID_HANDLE},
        {0x0000000180000002ULL, L"x", win::ERROR_INVALID_HANDLE},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(DE::UnicodeToANSI(c.path));
        EXPECT_EQ(store_->CreateKey(c.root, c.path).error, c.error);
        EXPECT_EQ(store_->SetValue(c.root, c.path, RegValue::Dword(L"v", 1)).error, c.error);
    }
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"a"));

    const std::wstring longestValue(kMaxValueNameLength, L'v');
    EXPECT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Limits", RegValue::Dword(longestValue, 1)));
    EXPECT_EQ(store_->SetValue(HKEY_LOCAL_MACHINE, L"Limits", RegValue::Dword(longestValue + L"v", 1)).error,
              win::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, L"Limits", longestValue + L"v").error,
              win::ERROR_INVALID_PARAMETER);
}

TEST_F(StoreTest, ValuesKeepTheirTypesAndTheOrderTheyWereFirstSet) {
    const RegValue values[] = {
        RegValue::String(L"s", L"héllo wörld ✓"),
        RegValue::Dword(L"d", 0xFFFFFFFFu),
        RegValue::Qword(L"q", 0x8000000000000001ULL),
        RegValue::Binary(L"b", {0, 1, 0xFF, 0}),
        RegValue::String(L"m", std::wstring(L"a\0b\0", 4), kRegMultiSz),
        RegValue::String(L"", L"default"),
    };
    for (const auto& value : values) {
        ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Types", value));
    }
    for (const auto& value : values) {
        EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, L"Types", value.name).value, value);
    }
    // Overwriting keeps the place in the list and changes the type as well.
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Types", RegValue::Dword(L"S", 7)));
    auto listed = store_->EnumValues(HKEY_LOCAL_MACHINE, L"Types");
    ASSERT_TRUE(listed);
    ASSERT_EQ(listed.value.size(), std::size(values));
    EXPECT_EQ(listed.value[0], RegValue::Dword(L"s", 7));
    EXPECT_EQ(listed.value[5], values[5]);
    RegValue wide = RegValue::Dword(L"d", 0);
    wide.number = 1ULL << 32;
    EXPECT_EQ(store_->SetValue(HKEY_LOCAL_MACHINE, L"Types", wide).error, win::ERROR_INVALID_PARAMETER);
}

TEST_F(StoreTest, MissingKeysAndValuesAreNotFound) {
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Here"));
    const auto hklm = HKEY_LOCAL_MACHINE;
    EXPECT_EQ(store_->GetValue(hklm, L"Nope", L"x").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->GetValue(hklm, L"Here", L"x").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->DeleteValue(hklm, L"Here", L"x").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->EnumSubkeys(hklm, L"Nope").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->SetValue(hklm, L"Nope", RegValue::Dword(L"x", 1), false).error,
              win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->DeleteKey(hklm, L"Nope").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_->DeleteTree(hklm, L"Here\\Nope").error, win::ERROR_FILE_NOT_FOUND);
}

TEST_F(StoreTest, DeleteKeyRefusesSubkeysAndHiveRootsAndTakesValuesAlong) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Parent\\Child", RegValue::Dword(L"v", 1)));
    EXPECT_EQ(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"Parent").error, win::ERROR_ACCESS_DENIED);
    EXPECT_EQ(store_->DeleteKey(HKEY_CURRENT_CONFIG, L"\\").error, win::ERROR_ACCESS_DENIED);
    EXPECT_EQ(store_->DeleteTree(HKEY_LOCAL_MACHINE, L"").error, win::ERROR_ACCESS_DENIED);
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Parent\\Child"));
    EXPECT_TRUE(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"PARENT\\child"));
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Parent\\Child"));
    EXPECT_EQ(store_->GetValue(HKEY_LOCAL_MACHINE, L"Parent\\Child", L"v").error, win::ERROR_FILE_NOT_FOUND);
}

TEST_F(StoreTest, DeleteTreeRemovesTheWholeSubtreeAndNothingElse) {
    const std::wstring user = L"S-1-22-1-1000\\Software\\";
    for (const wchar_t* key : {L"A\\B\\C", L"A\\D", L"AB"}) {
        ASSERT_TRUE(store_->SetValue(HKEY_USERS, user + key, RegValue::Dword(L"v", 1)));
    }
    ASSERT_TRUE(store_->DeleteTree(HKEY_USERS, L"s-1-22-1-1000\\software\\a"));
    EXPECT_FALSE(store_->OpenKey(HKEY_USERS, user + L"A"));
    EXPECT_TRUE(store_->GetValue(HKEY_USERS, user + L"AB", L"v"));
    // Nothing of the old tree comes back when its path is made again.
    ASSERT_TRUE(store_->CreateKey(HKEY_USERS, user + L"A"));
    EXPECT_TRUE(store_->EnumSubkeys(HKEY_USERS, user + L"A").value.empty());
}

TEST_F(StoreTest, HivesAreSeparateAndTakeBothHandleForms) {
    const HKEY roots[] = {HKEY_CLASSES_ROOT, HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, HKEY_USERS,
                          HKEY_CURRENT_CONFIG};
    for (HKEY root : roots) {
        ASSERT_TRUE(store_->SetValue(root, L"Same", RegValue::Dword(L"v", static_cast<DWORD>(root & 0xF))));
    }
    for (HKEY root : roots) {
        EXPECT_EQ(store_->GetValue(root & 0xFFFFFFFFULL, L"Same", L"v").value.number, root & 0xF);
    }
}

TEST_F(StoreTest, KeyRemadeByAnotherConnectionIsNotReadThroughAStaleId) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Cached\\Key", RegValue::String(L"v", L"first")));
    ASSERT_EQ(ReadText(L"Cached\\Key", L"v"), L"first");
    auto other = RegistryStore::Open(store_->File());
    ASSERT_TRUE(other);
    ASSERT_TRUE(other.value->DeleteTree(HKEY_LOCAL_MACHINE, L"Cached"));
    ASSERT_TRUE(other.value->SetValue(HKEY_LOCAL_MACHINE, L"Cached\\Key", RegValue::String(L"v", L"second")));
    EXPECT_EQ(ReadText(L"Cached\\Key", L"v"), L"second");
    ASSERT_TRUE(other.value->DeleteTree(HKEY_LOCAL_MACHINE, L"Cached"));
    EXPECT_EQ(store_->SetValue(HKEY_LOCAL_MACHINE, L"Cached\\Key", RegValue::Dword(L"v", 1), false).error,
              win::ERROR_FILE_NOT_FOUND);
}

TEST_F(StoreTest, FullDiskFailsTheWholeWriteAndKeepsTheStore) {
    ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, L"Before", RegValue::String(L"v", L"kept")));
    StoreOptions options;
    options.maxPageCount = 8;
    auto capped = RegistryStore::Open(store_->File(), options);
    ASSERT_TRUE(capped);
    SysStatus status;
    int failedAt = 0;
    for (; failedAt < 1000 && status; ++failedAt) {
        status = capped.value->SetValue(HKEY_LOCAL_MACHINE, L"Fill\\" + std::to_wstring(failedAt) + L"\\Deep",
                                        RegValue::String(L"pad", std::wstring(1500, L'x')));
    }
    ASSERT_EQ(status.error, win::ERROR_DISK_FULL);
    // The keys of the failed write were neither kept nor remembered by the writing connection.
    const std::wstring failedKey = L"Fill\\" + std::to_wstring(failedAt - 1) + L"\\Deep";
    EXPECT_FALSE(capped.value->OpenKey(HKEY_LOCAL_MACHINE, failedKey));
    EXPECT_EQ(ReadText(L"Before", L"v"), L"kept");
    // With room again, the same path is made for real and is seen by everyone.
    ASSERT_TRUE(capped.value->DeleteTree(HKEY_LOCAL_MACHINE, L"Fill\\0"));
    ASSERT_TRUE(capped.value->SetValue(HKEY_LOCAL_MACHINE, failedKey, RegValue::Dword(L"small", 1)));
    EXPECT_TRUE(store_->GetValue(HKEY_LOCAL_MACHINE, failedKey, L"small"));
}

// Files that are not a store are refused with ERROR_BADDB and left exactly as they were.
TEST(NotAStore, IsRefusedAndLeftAlone) {
    TempDir dir;
    std::ofstream(dir / "text") << "this is not a registry at all, but longer than a header\n";
    std::ofstream(dir / "short") << "SQLite";
    std::filesystem::create_directories(dir / "directory");
    for (const char* name : {"other", "damaged"}) {
        auto store = RegistryStore::Open(dir / name);
        ASSERT_TRUE(store);
        ASSERT_TRUE(store.value->SetValue(HKEY_LOCAL_MACHINE, L"K", RegValue::Dword(L"v", 1)));
    }
    // Someone else's database, told by its format mark; and a store whose schema page is scrambled.
    std::string other = ReadFile(dir / "other");
    other.replace(other.find("qlb-registry"), 3, "xyz");
    std::ofstream(dir / "other", std::ios::binary | std::ios::trunc) << other;
    std::string damaged = ReadFile(dir / "damaged");
    ASSERT_GT(damaged.size(), 4096u);
    for (std::size_t i = 100; i < 4096; ++i) {
        damaged[i] = static_cast<char>(0xA5 ^ (i * 31));
    }
    std::ofstream(dir / "damaged", std::ios::binary | std::ios::trunc) << damaged;
    for (const char* name : {"text", "short", "directory", "other", "damaged"}) {
        const std::string before = ReadFile(dir / name);
        EXPECT_EQ(RegistryStore::Open(dir / name).error, win::ERROR_BADDB) << name;
        EXPECT_EQ(ReadFile(dir / name), before) << name;
    }
    // An empty file is a new store.
    std::ofstream(dir / "empty").flush();
    auto opened = RegistryStore::Open(dir / "empty");
    ASSERT_TRUE(opened);
    EXPECT_TRUE(opened.value->CreateKey(HKEY_LOCAL_MACHINE, L"x"));
}

}  // namespace
}  // namespace qlb::registry
