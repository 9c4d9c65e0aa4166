// Conversions between UTF-8, wide and UTF-16 text, and the small text helpers.

#include <gtest/gtest.h>

#include "runtime/common/strings.h"

namespace {

TEST(Utf8ToWide, DecodesEveryLengthAndReplacesWhatIsInvalid) {
    const std::pair<std::string, std::wstring> cases[] = {
        {"a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80", L"a\u00E9\u4E2D\U0001F600"},
        {"\xFF"
         "a",
         L"\uFFFDa"},
        {"\xC0\xAF", L"\uFFFD\uFFFD"},  // overlong '/'
        {"\xE4"
         "A",
         L"\uFFFDA"},  // a cut sequence keeps what follows
        {"x\xE4\xB8"
         "y",
         L"x\uFFFDy"},
        {"end\xE4\xB8", L"end\uFFFD"},
    };
    for (const auto& [in, out] : cases) {
        EXPECT_EQ(DE::ANSIToUnicode(in), out) << ::testing::PrintToString(in);
    }
    EXPECT_EQ(DE::ANSIToUnicode("\xED\xA0\x80").substr(0, 1), L"\uFFFD");  // a surrogate
}

TEST(WideToUtf8, RoundTripsAndReplacesWhatCannotBeEncoded) {
    const std::wstring text = L"C:/Program Files/\u4E2D\U0001F600";
    EXPECT_EQ(DE::ANSIToUnicode(DE::UnicodeToANSI(text)), text);
    EXPECT_EQ(DE::UnicodeToANSI(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
    EXPECT_EQ(DE::UnicodeToANSI(std::wstring(1, static_cast<wchar_t>(0x110000))), "\xEF\xBF\xBD");
    EXPECT_EQ(DE::Utf16ToWide(u"a\U0001F600"), L"a\U0001F600");
    EXPECT_EQ(DE::WideToUtf16(L"a\U0001F600"), u"a\U0001F600");
    EXPECT_EQ(DE::Utf16ToWide(std::u16string(1, static_cast<char16_t>(0xDC00))), L"\uFFFD");
}

TEST(TextHelpers, TrimCompareAndSplit) {
    EXPECT_EQ(DE::TrimSP(std::string(" \t a b \r\n")), "a b");
    EXPECT_EQ(DE::TrimSP(std::wstring(L"  ")), L"");
    EXPECT_TRUE(qlb::EqualsNoCase(std::wstring_view(L"QLBMessageCenter.EXE"), L"qlbmessagecenter.exe"));
    EXPECT_FALSE(qlb::EqualsNoCase(std::string_view("abc"), "abd"));
    EXPECT_FALSE(qlb::EqualsNoCase(std::string_view("abc"), "ab"));
    EXPECT_EQ(qlb::ToLowerAscii(std::string_view("HKLM\\Software")), "hklm\\software");
    EXPECT_EQ(qlb::Split("a,,b,", ','), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(qlb::Split("", ','), (std::vector<std::string>{""}));
}

}  // namespace
