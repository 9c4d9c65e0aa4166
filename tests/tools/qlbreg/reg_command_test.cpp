// qlbreg's verbs against a store of the test's own: the exact text the console tool prints, its
// prompts and its exit statuses.

#include "reg_command.h"

#include <gtest/gtest.h>

#include <ostream>
#include <sstream>

#include "support/temp_dir.h"

namespace qlb::regtool {
namespace {

using registry::RegistryStore;
using registry::RegValue;

struct Outcome {
    Outcome(int s, std::string o, std::string e = {}) : status(s), out(std::move(o)), err(std::move(e)) {}
    int status;
    std::string out;
    std::string err;
    bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Outcome& o) {
    return os << "status " << o.status << ", out " << ::testing::PrintToString(o.out) << ", err "
              << ::testing::PrintToString(o.err);
}

constexpr const char* kNotFound =
    "ERROR: The system was unable to find the specified registry key or value.\n";
constexpr const char* kSuccess = "The operation completed successfully.\n";
constexpr const char* kCancelled = "The operation was cancelled by the user.\n";

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
        const int status = RunRegCommand(args, in, out, err, [this] {
            ++opens_;
            return SysResult<std::shared_ptr<RegistryStore>>::Ok(store_);
        });
        return {status, out.str(), err.str()};
    }
    void Set(const std::wstring& key, const RegValue& value, HKEY root = HKEY_LOCAL_MACHINE) {
        ASSERT_TRUE(store_->SetValue(root, key, value));
    }
    std::optional<RegValue> Get(const std::wstring& key, const std::wstring& name) {
        auto read = store_->GetValue(HKEY_LOCAL_MACHINE, key, name);
        return read ? std::optional<RegValue>(read.value) : std::nullopt;
    }

    qlb::testing::TempDir dir_;
    std::shared_ptr<RegistryStore> store_;
    int opens_ = 0;
};

TEST_F(RegCommandTest, QueryPrintsWhatTheConsoleToolPrints) {
    Set(L"Software\\Foo", RegValue::String(L"Path", L"/opt/q"));
    Set(L"Software\\Foo", RegValue::Dword(L"Start", 0xABCDEF01));
    Set(L"Software\\Foo\\beta", RegValue::Dword(L"x", 1));
    Set(L"Software\\Foo\\Alpha", RegValue::Dword(L"x", 1));
    Set(L"D", RegValue::String(L"", L"text"));
    Set(L"T", RegValue::Qword(L"q", 0x1234567890ULL));
    Set(L"T", RegValue::Binary(L"b", {0x0A, 0xFF, 0x00}));
    Set(L"T", RegValue::String(L"m", std::wstring(L"one\0two\0", 8), registry::kRegMultiSz));
    Set(L"T", RegValue::String(L"e", L"%ROOT%\\x", registry::kRegExpandSz));
    Set(L"T", RegValue::String(L"名前", L"データ ✓"));
    Set(L"R", RegValue::Dword(L"Start", 1));
    Set(L"R\\a\\deep", RegValue::String(L"v", L"x"));
    Set(L"R\\b", RegValue::Dword(L"START", 3));
    Set(L"S-1-5-18\\K", RegValue::Dword(L"v", 1), HKEY_USERS);
    const std::pair<std::vector<std::string>, Outcome> cases[] = {
        {{"query", "HKLM\\Software\\Foo"},
         {0,
          "\nHKEY_LOCAL_MACHINE\\Software\\Foo\n"
          "    Path    REG_SZ    /opt/q\n"
          "    Start    REG_DWORD    0xabcdef01\n"
          "\n"
          "HKEY_LOCAL_MACHINE\\Software\\Foo\\Alpha\n"
          "HKEY_LOCAL_MACHINE\\Software\\Foo\\beta\n"}},
        {{"QUERY", "hkey_local_machine\\Software\\"}, {0, "\nHKEY_LOCAL_MACHINE\\Software\\Foo\n"}},
        {{"query", "HKLM\\Software\\Foo", "/v", "START"},
         {0, "\nHKEY_LOCAL_MACHINE\\Software\\Foo\n    Start    REG_DWORD    0xabcdef01\n\n"}},
        {{"query", "HKLM\\D", "/ve"}, {0, "\nHKEY_LOCAL_MACHINE\\D\n    (Default)    REG_SZ    text\n\n"}},
        {{"query", "HKLM\\T", "/ve"},
         {0, "\nHKEY_LOCAL_MACHINE\\T\n    (Default)    REG_SZ    (value not set)\n\n"}},
        {{"query", "HKLM\\T"},
         {0,
          "\nHKEY_LOCAL_MACHINE\\T\n"
          "    q    REG_QWORD    0x1234567890\n"
          "    b    REG_BINARY    0AFF00\n"
          "    m    REG_MULTI_SZ    one\\0two\n"
          "    e    REG_EXPAND_SZ    %ROOT%\\x\n"
          "    名前    REG_SZ    データ ✓\n"
          "\n"}},
        {{"query", "HKLM\\R", "/s"},
         {0,
          "\nHKEY_LOCAL_MACHINE\\R\n    Start    REG_DWORD    0x1\n"
          "\nHKEY_LOCAL_MACHINE\\R\\a\n"
          "\nHKEY_LOCAL_MACHINE\\R\\a\\deep\n    v    REG_SZ    x\n"
          "\nHKEY_LOCAL_MACHINE\\R\\b\n    START    REG_DWORD    0x3\n"}},
        {{"query", "HKLM\\R", "/v", "start", "/s"},
         {0,
          "\nHKEY_LOCAL_MACHINE\\R\n    Start    REG_DWORD    0x1\n"
          "\nHKEY_LOCAL_MACHINE\\R\\b\n    START    REG_DWORD    0x3\n"
          "\nEnd of search: 2 match(es) found.\n"}},
        {{"query", "HKLM\\R", "/s", "/v", "nothing"}, {1, "\nEnd of search: 0 match(es) found.\n"}},
        {{"query", "HKU\\S-1-5-18\\K", "/v", "v"},
         {0, "\nHKEY_USERS\\S-1-5-18\\K\n    v    REG_DWORD    0x1\n\n"}},
        {{"query", "HKLM\\Nope"}, {1, "", kNotFound}},
        {{"query", "HKLM\\D", "/v", "nope"}, {1, "", kNotFound}},
    };
    for (const auto& [args, expected] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        EXPECT_EQ(Run(args), expected);
    }
}

TEST_F(RegCommandTest, BadCommandLinesAreRefusedBeforeTheStoreIsOpened) {
    const std::string query = "ERROR: Invalid syntax.\nType \"REG QUERY /?\" for usage.\n";
    const std::string add = "ERROR: Invalid syntax.\nType \"REG ADD /?\" for usage.\n";
    const std::string top = "ERROR: Invalid syntax.\nType \"REG /?\" for usage.\n";
    const std::string number =
        "ERROR: Invalid syntax. Specify valid numeric value for '/d'.\nType \"REG ADD /?\" for usage.\n";
    std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, top},
        {{"frobnicate", "HKLM\\x"}, top},
        {{"query"}, query},
        {{"query", "HKLM\\x", "/v"}, query},
        {{"query", "HKLM\\x", "/v", "a", "/ve"}, query},
        {{"query", "HKLM\\x", "/s", "/s"}, query},
        {{"query", "HKLM\\x", "/f"}, query},
        {{"query", "HKLM\\x", "extra"}, query},
        {{"query", "HKXX\\Software"}, "ERROR: Invalid key name.\nType \"REG QUERY /?\" for usage.\n"},
        {{"add", "HKLM\\x", "/t"}, add},
        {{"add", "HKLM\\x", "/v", "n", "/t", "REG_WHAT"}, add},
        {{"delete", "HKLM\\x", "/va", "/v", "n"},
         "ERROR: Invalid syntax.\nType \"REG DELETE /?\" for usage.\n"},
    };
    for (const char* data : {"4294967296", "0x100000000", "-1", "0x", "12a", " 1"}) {
        cases.push_back({{"add", "HKLM\\A", "/v", "d", "/t", "REG_DWORD", "/d", data, "/f"}, number});
    }
    for (const auto& [args, message] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        EXPECT_EQ(Run(args), (Outcome{1, "", message}));
    }
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "b", "/t", "REG_BINARY", "/d", "abc"}).status, 1);
    EXPECT_EQ(opens_, 0);
    for (const auto& args : std::vector<std::vector<std::string>>{{"/?"}, {"add", "-?"}}) {
        const auto r = Run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.rfind("\nREG ", 0), 0u) << r.out;
    }
}

TEST_F(RegCommandTest, AddWritesEachType) {
    const std::pair<std::vector<std::string>, RegValue> cases[] = {
        {{"/v", "s", "/d", "hello world"}, RegValue::String(L"s", L"hello world")},
        {{"/v", "d", "/t", "reg_dword", "/d", "42"}, RegValue::Dword(L"d", 42)},
        {{"/v", "h", "/t", "REG_DWORD", "/d", "0xFFFFFFFF"}, RegValue::Dword(L"h", 0xFFFFFFFF)},
        {{"/ve", "/d", "dflt"}, RegValue::String(L"", L"dflt")},
        {{"/v", "empty", "/t", "REG_DWORD"}, RegValue::Dword(L"empty", 0)},
        {{"/v", "m", "/t", "REG_MULTI_SZ", "/d", "a#b", "/s", "#"},
         RegValue::String(L"m", std::wstring(L"a\0b\0", 4), registry::kRegMultiSz)},
        {{"/v", "b", "/t", "REG_BINARY", "/d", "00ff10"}, RegValue::Binary(L"b", {0x00, 0xFF, 0x10})},
    };
    for (const auto& [options, value] : cases) {
        std::vector<std::string> args{"add", "HKLM\\A\\Deep"};
        args.insert(args.end(), options.begin(), options.end());
        SCOPED_TRACE(::testing::PrintToString(args));
        EXPECT_EQ(Run(args), (Outcome{0, kSuccess}));
        EXPECT_EQ(Get(L"A\\Deep", value.name), value);
    }
    EXPECT_EQ(Run({"add", "HKLM\\Software\\New\\Key"}), (Outcome{0, kSuccess}));
    EXPECT_TRUE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"Software\\New\\Key"));
}

// Every prompt asks until it hears yes or no; end of input is no. Each question is shown once.
TEST_F(RegCommandTest, OverwriteAndDeleteAskFirst) {
    Set(L"A", RegValue::String(L"Name", L"old"));
    Set(L"A", RegValue::Dword(L"drop", 1));
    Set(L"A\\Sub", RegValue::Dword(L"a", 1));
    const std::string overwrite = "Value Name exists, overwrite(Yes/No)? ";
    const std::vector<std::string> add = {"add", "HKLM\\A", "/v", "name", "/d", "new"};
    EXPECT_EQ(Run(add, "no\n"), (Outcome{0, overwrite + kCancelled}));
    EXPECT_EQ(Run(add, ""), (Outcome{0, overwrite + "\n" + kCancelled}));
    EXPECT_EQ(Get(L"A", L"Name")->text, L"old");
    EXPECT_EQ(Run(add, "maybe\nY\n"), (Outcome{0, overwrite + overwrite + kSuccess}));
    EXPECT_EQ(Get(L"A", L"Name")->text, L"new");
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "name", "/d", "forced", "/f"}), (Outcome{0, kSuccess}));
    EXPECT_EQ(Get(L"A", L"Name")->text, L"forced");
    EXPECT_EQ(Run({"add", "HKLM\\A", "/v", "fresh", "/d", "x"}), (Outcome{0, kSuccess}));

    EXPECT_EQ(Run({"delete", "HKLM\\A", "/v", "DROP"}, "yes\n"),
              (Outcome{0, std::string("Delete the registry value drop (Yes/No)? ") + kSuccess}));
    EXPECT_FALSE(Get(L"A", L"drop"));
    EXPECT_EQ(Run({"delete", "HKLM\\A", "/va"}, "y\n"),
              (Outcome{0, std::string("Delete all values under the registry key HKEY_LOCAL_MACHINE\\A "
                                      "(Yes/No)? ") +
                              kSuccess}));
    EXPECT_TRUE(store_->EnumValues(HKEY_LOCAL_MACHINE, L"A").value.empty());
    EXPECT_TRUE(Get(L"A\\Sub", L"a"));
    EXPECT_EQ(
        Run({"delete", "HKLM\\A"}, "n\n"),
        (Outcome{0, std::string("Permanently delete the registry key HKEY_LOCAL_MACHINE\\A (Yes/No)? ") +
                        kCancelled}));
    EXPECT_TRUE(Get(L"A\\Sub", L"a"));
}

TEST_F(RegCommandTest, ForcedDeletesTakeTheirTargetAndReportWhatIsMissing) {
    Set(L"D", RegValue::String(L"", L"x"));
    Set(L"D", RegValue::Dword(L"keep", 1));
    Set(L"D\\Sub\\Deeper", RegValue::Dword(L"a", 1));
    EXPECT_EQ(Run({"delete", "HKLM\\D", "/ve", "/f"}), (Outcome{0, kSuccess}));
    EXPECT_FALSE(Get(L"D", L""));
    EXPECT_TRUE(Get(L"D", L"keep"));
    EXPECT_EQ(Run({"delete", "HKLM\\D", "/v", "gone", "/f"}), (Outcome{1, "", kNotFound}));
    EXPECT_EQ(Run({"delete", "HKLM", "/f"}),
              (Outcome{1, "", "ERROR: Invalid key name.\nType \"REG DELETE /?\" for usage.\n"}));
    EXPECT_EQ(Run({"delete", "HKLM\\D", "/f"}), (Outcome{0, kSuccess}));
    EXPECT_FALSE(store_->OpenKey(HKEY_LOCAL_MACHINE, L"D"));
}

}  // namespace
}  // namespace qlb::regtool
