// qlbreg's verbs against a store of the test's own: the exact text the console tool prints, its
// prompts and its exit statuses.

#include "reg_command.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/temp_dir.h"

namespace qlb::regtool {
namespace {

using registry::RegistryStore;
using registry::RegValue;

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

class RegCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto opened = RegistryStore::Open(dir_ / "registry.db");
        ASSERT_TRUE(opened);
        store_ = opened.value;
    }
    Outcome Run(const std::vector<std::string>& args, const std::string& input = {}) {
        std::istringstream in(input);
        std::ostringstream out;
        std::ostringstream err;
        Outcome outcome;
        outcome.status = RunRegCommand(args, in, out, err, [this] {
            ++opens_;
            return SysResult<std::shared_ptr<RegistryStore>>::Ok(store_);
        });
        outcome.out = out.str();
        outcome.err = err.str();
        return outcome;
    }
    void Set(const std::wstring& key, const RegValue& value) {
        ASSERT_TRUE(store_->SetValue(HKEY_LOCAL_MACHINE, key, value));
    }
    std::optional<RegValue> Get(const std::wstring& key, const std::wstring& name) {
        auto read = store_->GetValue(HKEY_LOCAL_MACHINE, key, name);
        return read ? std::optional<RegValue>(read.value) : std::nullopt;
    }

    qlb::testing::TempDir dir_;
    std::shared_ptr<RegistryStore> store_;
    int opens_ = 0;
};

constexpr const char* kNotFound =
    "ERROR: The system was unable to find the specified registry key or value.\n";
constexpr const char* kSuccess = "The operation completed successfully.\n";

// ---- query

TEST_F(RegCommandTest, QueryListsValuesThenSubkeys) {
    Set(L"Software\\Foo", RegValue::String(L"Path", L"/opt/q"));
    Set(L"Software\\Foo", RegValue::Dword(L"Start", 0x1F));
    Set(L"Software\\Foo\\beta", RegValue::Dword(L"x", 1));
    Set(L"Software\\Foo\\Alpha", RegValue::Dword(L"x", 1));
    const auto r = Run({"query", "HKLM\\Software\\Foo"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "\nHKEY_LOCAL_MACHINE\\Software\\Foo\n"
              "    Path    REG_SZ    /opt/q\n"
              "    Start    REG_DWORD    0x1f\n"
              "\n"
              "HKEY_LOCAL_MACHINE\\Software\\Foo\\Alpha\n"
              "HKEY_LOCAL_MACHINE\\Software\\Foo\\beta\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(RegCommandTest, QueryOfKeyWithoutValuesListsOnlySubkeys) {
    Set(L"Software\\Foo\\Sub", RegValue::Dword(L"x", 1));
    const auto r = Run({"QUERY", "hkey_local_machine\\Software\\Foo\\"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "\nHKEY_LOCAL_MACHINE\\Software\\Foo\\Sub\n");
}

TEST_F(RegCommandTest, QueryOneValueUsesItsStoredNameAndEndsWithABlankLine) {
    Set(L"Software\\Foo", RegValue::Dword(L"Start", 0xABCDEF01));
    const auto r = Run({"query", "HKLM\\Software\\Foo", "/v", "START"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "\nHKEY_LOCAL_MACHINE\\Software\\Foo\n    Start    REG_DWORD    0xabcdef01\n\n");
}

TEST_F(RegCommandTest, QueryDefaultValueSetAndNotSet) {
    Set(L"Software\\Foo", RegValue::String(L"", L"text"));
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Software\\Bar"));
    EXPECT_EQ(Run({"query", "HKLM\\Software\\Foo", "/ve"}).out,
              "\nHKEY_LOCAL_MACHINE\\Software\\Foo\n    (Default)    REG_SZ    text\n\n");
    const auto unset = Run({"query", "HKLM\\Software\\Bar", "/ve"});
    EXPECT_EQ(unset.status, 0);
    EXPECT_EQ(unset.out,
              "\nHKEY_LOCAL_MACHINE\\Software\\Bar\n    (Default)    REG_SZ    (value not set)\n\n");
    EXPECT_EQ(Run({"query", "HKLM\\Software\\Missing", "/ve"}).status, 1);
}

TEST_F(RegCommandTest, QueryShowsEveryTypeAsTheConsoleToolDoes) {
    Set(L"T", RegValue::Qword(L"q", 0x1234567890ULL));
    Set(L"T", RegValue::Binary(L"b", {0x0A, 0xFF, 0x00}));
    Set(L"T", RegValue::String(L"m", std::wstring(L"one\0two\0", 8), registry::kRegMultiSz));
    Set(L"T", RegValue::String(L"e", L"%ROOT%\\x", registry::kRegExpandSz));
    Set(L"T", RegValue::String(L"名前", L"データ ✓"));
    EXPECT_EQ(Run({"query", "HKLM\\T"}).out,
              "\nHKEY_LOCAL_MACHINE\\T\n"
              "    q    REG_QWORD    0x1234567890\n"
              "    b    REG_BINARY    0AFF00\n"
              "    m    REG_MULTI_SZ    one\\0two\n"
              "    e    REG_EXPAND_SZ    %ROOT%\\x\n"
              "    名前    REG_SZ    データ ✓\n"
              "\n");
}

TEST_F(RegCommandTest, RecursiveQueryPrintsEachKeyBlockInTreeOrder) {
    Set(L"R", RegValue::Dword(L"top", 1));
    Set(L"R\\b", RegValue::Dword(L"v", 2));
    Set(L"R\\a\\deep", RegValue::String(L"v", L"x"));
    const auto r = Run({"query", "HKLM\\R", "/s"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "\nHKEY_LOCAL_MACHINE\\R\n    top    REG_DWORD    0x1\n"
              "\nHKEY_LOCAL_MACHINE\\R\\a\n"
              "\nHKEY_LOCAL_MACHINE\\R\\a\\deep\n    v    REG_SZ    x\n"
              "\nHKEY_LOCAL_MACHINE\\R\\b\n    v    REG_DWORD    0x2\n");
}

TEST_F(RegCommandTest, RecursiveValueSearchCountsMatches) {
    Set(L"R", RegValue::Dword(L"Start", 1));
    Set(L"R\\a", RegValue::Dword(L"other", 1));
    Set(L"R\\b", RegValue::Dword(L"START", 3));
    const auto r = Run({"query", "HKLM\\R", "/v", "start", "/s"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "\nHKEY_LOCAL_MACHINE\\R\n    Start    REG_DWORD    0x1\n"
              "\nHKEY_LOCAL_MACHINE\\R\\b\n    START    REG_DWORD    0x3\n"
              "\nEnd of search: 2 match(es) found.\n");
    const auto none = Run({"query", "HKLM\\R", "/s", "/v", "nothing"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "\nEnd of search: 0 match(es) found.\n");
}

TEST_F(RegCommandTest, QueryOfMissingKeyOrValueFails) {
    Set(L"Here", RegValue::Dword(L"v", 1));
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"query", "HKLM\\Nope"}, {"query", "HKLM\\Here", "/v", "nope"}, {"query", "HKLM\\Nope", "/s"}}) {
        const auto r = Run(args);
        EXPECT_EQ(r.status, 1) << args[1];
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, kNotFound);
    }
}

TEST_F(RegCommandTest, HiveNamesShortAndLong) {
    ASSERT_TRUE(store_->SetValue(HKEY_USERS, L"S-1-5-18\\K", RegValue::Dword(L"v", 1)));
    ASSERT_TRUE(store_->SetValue(HKEY_CURRENT_CONFIG, L"K", RegValue::Dword(L"v", 1)));
    EXPECT_EQ(Run({"query", "HKU\\S-1-5-18\\K", "/v", "v"}).out,
              "\nHKEY_USERS\\S-1-5-18\\K\n    v    REG_DWORD    0x1\n\n");
    EXPECT_EQ(Run({"query", "HKEY_USERS\\S-1-5-18\\K", "/v", "v"}).status, 0);
    EXPECT_EQ(Run({"query", "hkcc\\K", "/v", "v"}).status, 0);
    EXPECT_EQ(Run({"query", "HKCU\\K", "/v", "v"}).status, 1);
}

// ---- syntax

TEST_F(RegCommandTest, BadCommandLinesAreSyntaxErrorsAndNeverOpenTheStore) {
    const std::string query = "ERROR: Invalid syntax.\nType \"REG QUERY /?\" for usage.\n";
    const std::string add = "ERROR: Invalid syntax.\nType \"REG ADD /?\" for usage.\n";
    const std::string top = "ERROR: Invalid syntax.\nType \"REG /?\" for usage.\n";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, top},
        {{"frobnicate", "HKLM\\x"}, top},
        {{"query"}, query},
        {{"query", "/s"}, query},
        {{"query", "HKLM\\x", "/v"}, query},
        {{"query", "HKLM\\x", "/v", "a", "/ve"}, query},
        {{"query", "HKLM\\x", "/s", "/s"}, query},
        {{"query", "HKLM\\x", "/zz"}, query},
        {{"query", "HKLM\\x", "extra"}, query},
        {{"query", "HKLM\\x", "/f"}, query},
        {{"add", "HKLM\\x", "/t"}, add},
        {{"add", "HKLM\\x", "/v", "n", "/t", "REG_WHAT"}, add},
        {{"add", "HKLM\\x", "/va"}, add},
        {{"delete", "HKLM\\x", "/va", "/v", "n"},
         "ERROR: Invalid syntax.\nType \"REG DELETE /?\" for usage.\n"},
    };
    for (const auto& [args, message] : cases) {
        const auto r = Run(args);
        EXPECT_EQ(r.status, 1) << ::testing::PrintToString(args);
        EXPECT_EQ(r.err, message) << ::testing::PrintToString(args);
    }
    EXPECT_EQ(opens_, 0);
}

TEST_F(RegCommandTest, UnknownHiveIsAnInvalidKeyName) {
    const auto r = Run({"query", "HKXX\\Software"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ERROR: Invalid key name.\nType \"REG QUERY /?\" for usage.\n");
    EXPECT_EQ(Run({"delete", "HKLM", "/f"}).err,
              "ERROR: Invalid key name.\nType \"REG DELETE /?\" for usage.\n");
}

TEST_F(RegCommandTest, HelpSucceeds) {
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"/?"}, {"query", "/?"}, {"add", "-?"}, {"delete", "/?"}}) {
        const auto r = Run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_NE(r.out.find("REG"), std::string::npos);
    }
}

TEST_F(RegCommandTest, StoreThatCannotBeOpenedIsReported) {
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    const int status = RunRegCommand({"query", "HKLM\\x"}, in, out, err, [] {
        return SysResult<std::shared_ptr<RegistryStore>>::Fail(win::ERROR_BADDB);
    });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err.str(), "ERROR: The configuration registry database is corrupt.\n");
}

// ---- add

TEST_F(RegCommandTest, AddKeyAlone) {
    const auto r = Run({"add", "HKLM\\Software\\New\\Deep"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kSuccess);
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Software\\New\\Deep"));
    EXPECT_EQ(Run({"add", "HKLM\\Software\\New\\Deep"}).status, 0);
}

TEST_F(RegCommandTest, AddValuesOfEachType) {
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "s", "/d", "hello world"}).out, kSuccess);
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "d", "/t", "reg_dword", "/d", "42"}).status, 0);
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "h", "/t", "REG_DWORD", "/d", "0xFFFFFFFF"}).status, 0);
    EXPECT_EQ(Run({"add", "HKLM\\A", "/ve", "/d", "dflt"}).status, 0);
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "empty", "/t", "REG_DWORD"}).status, 0);
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "m", "/t", "REG_MULTI_SZ", "/d", "a#b", "/s", "#"}).status, 0);
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "b", "/t", "REG_BINARY", "/d", "00ff10"}).status, 0);

    EXPECT_EQ(Get(L"A", L"s"), RegValue::String(L"s", L"hello world"));
    EXPECT_EQ(Get(L"A", L"d"), RegValue::Dword(L"d", 42));
    EXPECT_EQ(Get(L"A", L"h"), RegValue::Dword(L"h", 0xFFFFFFFF));
    EXPECT_EQ(Get(L"A", L""), RegValue::String(L"", L"dflt"));
    EXPECT_EQ(Get(L"A", L"empty"), RegValue::Dword(L"empty", 0));
    EXPECT_EQ(Get(L"A", L"m")->text, std::wstring(L"a\0b\0", 4));
    EXPECT_EQ(Get(L"A", L"b"), RegValue::Binary(L"b", {0x00, 0xFF, 0x10}));
}

TEST_F(RegCommandTest, AddRefusesNumbersThatAreNotDwords) {
    for (const char* data : {"4294967296", "0x100000000", "-1", "0x", "12a", "0xZZ", " 1"}) {
        const auto r = Run({"add", "HKLM\\A", "/v", "d", "/t", "REG_DWORD", "/d", data, "/f"});
        EXPECT_EQ(r.status, 1) << data;
        EXPECT_EQ(
            r.err,
            "ERROR: Invalid syntax. Specify valid numeric value for '/d'.\nType \"REG ADD /?\" for usage.\n")
            << data;
    }
    EXPECT_FALSE(Get(L"A", L"d"));
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "b", "/t", "REG_BINARY", "/d", "abc"}).status, 1);
}

TEST_F(RegCommandTest, OverwriteAsksFirst) {
    Set(L"A", RegValue::String(L"Name", L"old"));
    const auto no = Run({"add", "HKLM\\A", "/v", "name", "/d", "new"}, "no\n");
    EXPECT_EQ(no.status, 0);
    EXPECT_EQ(no.out, "Value Name exists, overwrite(Yes/No)? The operation was cancelled by the user.\n");
    EXPECT_EQ(Get(L"A", L"Name")->text, L"old");

    const auto eof = Run({"add", "HKLM\\A", "/v", "name", "/d", "new"}, "");
    EXPECT_EQ(eof.status, 0);
    EXPECT_NE(eof.out.find("The operation was cancelled by the user."), std::string::npos);
    EXPECT_EQ(Get(L"A", L"Name")->text, L"old");

    const auto yes = Run({"add", "HKLM\\A", "/v", "name", "/d", "new"}, "maybe\nY\n");
    EXPECT_EQ(yes.status, 0);
    EXPECT_EQ(yes.out,
              "Value Name exists, overwrite(Yes/No)? Value Name exists, overwrite(Yes/No)? "
              "The operation completed successfully.\n");
    EXPECT_EQ(Get(L"A", L"Name")->text, L"new");

    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "name", "/d", "forced", "/f"}).out, kSuccess);
    EXPECT_EQ(Get(L"A", L"Name")->text, L"forced");
    // A value that is not there yet is written without a question.
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "fresh", "/d", "x"}).out, kSuccess);
}

// ---- delete

TEST_F(RegCommandTest, DeleteOneValue) {
    Set(L"D", RegValue::Dword(L"keep", 1));
    Set(L"D", RegValue::Dword(L"drop", 1));
    const auto r = Run({"delete", "HKLM\\D", "/v", "DROP"}, "yes\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Delete the registry value drop (Yes/No)? The operation completed successfully.\n");
    EXPECT_FALSE(Get(L"D", L"drop"));
    EXPECT_TRUE(Get(L"D", L"keep"));

    const auto missing = Run({"delete", "HKLM\\D", "/v", "drop", "/f"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, kNotFound);
}

TEST_F(RegCommandTest, DeleteDefaultAndAllValues) {
    Set(L"D", RegValue::String(L"", L"x"));
    Set(L"D", RegValue::Dword(L"a", 1));
    Set(L"D\\Sub", RegValue::Dword(L"a", 1));
    EXPECT_EQ(Run({"delete", "HKLM\\D", "/ve", "/f"}).status, 0);
    EXPECT_FALSE(Get(L"D", L""));
    EXPECT_TRUE(Get(L"D", L"a"));
    const auto all = Run({"delete", "HKLM\\D", "/va"}, "y\n");
    EXPECT_EQ(all.out,
              "Delete all values under the registry key HKEY_LOCAL_MACHINE\\D (Yes/No)? "
              "The operation completed successfully.\n");
    EXPECT_TRUE(store_->EnumValues(HKEY_LOCAL_MACHINE, L"D").value.empty());
    EXPECT_TRUE(Get(L"D\\Sub", L"a"));
}

TEST_F(RegCommandTest, DeleteKeyTakesTheSubtreeOnlyWhenConfirmed) {
    Set(L"D\\Sub\\Deeper", RegValue::Dword(L"a", 1));
    const auto no = Run({"delete", "HKLM\\D"}, "n\n");
    EXPECT_EQ(no.status, 0);
    EXPECT_EQ(no.out,
              "Permanently delete the registry key HKEY_LOCAL_MACHINE\\D (Yes/No)? "
              "The operation was cancelled by the user.\n");
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"D\\Sub\\Deeper"));
    EXPECT_EQ(Run({"delete", "HKLM\\D"}).status, 0);  // end of input: No
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"D"));

    EXPECT_EQ(Run({"delete", "HKLM\\D", "/f"}).out, kSuccess);
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"D"));
    const auto again = Run({"delete", "HKLM\\D", "/f"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, kNotFound);
}

}  // namespace
}  // namespace qlb::regtool
