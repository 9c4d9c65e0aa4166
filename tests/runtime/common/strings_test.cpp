// Conversions between UTF-8, wide and UTF-16 text, and the small text helpers.

#include <gtest/gtest.h>

#include "runtime/common/strings.h"

namespace {

TEST(Utf8ToWide, DecodesEveryLength) {
    EXPECT_EQ(DE::ANSIToUnicode("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"),
              std::wstring(L"a\u00E9\u4E2D\U0001F600"));
}

TEST(Utf8ToWide, InvalidBytesBecomeReplacementCharacters) {
    EXPECT_EQ(DE::ANSIToUnicode("\xFF"
                                "a"),
              std::wstring(L"\uFFFDa"));
    EXPECT_EQ(DE::ANSIToUnicode("\xC0\xAF"), std::wstring(L"\uFFFD\uFFFD"));             // overlong '/'
    EXPECT_EQ(DE::ANSIToUnicode("\xED\xA0\x80").substr(0, 1), std::wstring(L"\uFFFD"));  // a surrogate
}

TEST(Utf8ToWide, CutSequenceKeepsWhatFollows) {
    EXPECT_EQ(DE::ANSIToUnicode("\xE4"
                                "A"),
              std::wstring(L"\uFFFDA"));
    EXPECT_EQ(DE::ANSIToUnicode("x\xE4\xB8"
                                "y"),
              std::wstring(L"x\uFFFDy"));
    EXPECT_EQ(DE::ANSIToUnicode("end\xE4\xB8"), std::wstring(L"end\uFFFD"));
}

TEST(WideToUtf8, RoundTripsAndReplacesWhatCannotBeEncoded) {
    const std::wstring text = L"C:/Program Files/\u4E2D\U0001F600";
    EXPECT_EQ(DE::ANSIToUnicode(DE::UnicodeToANSI(text)), text);
    EXPECT_EQ(DE::UnicodeToANSI(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
    EXPECT_EQ(DE::UnicodeToANSI(std::wstring(1, static_cast<wchar_t>(0x110000))), "\xEF\xBF\xBD");
}

TEST(Utf16, SurrogatePairsJoinAndLoneHalvesAreReplaced) {
    EXPECT_EQ(DE::Utf16ToWide(u"a\U0001F600"), std::wstring(L"a\U0001F600"));
    EXPECT_EQ(DE::WideToUtf16(L"a\U0001F600"), std::u16string(u"a\U0001F600"));
    EXPECT_EQ(DE::Utf16ToWide(std::u16string(1, static_cast<char16_t>(0xDC00))), std::wstring(L"\uFFFD"));
}

TEST(TextHelpers, TrimCutsBlanksAtBothEnds) {
    EXPECT_EQ(DE::TrimSP(std::string(" \t a b \r\n")), "a b");
    EXPECT_EQ(DE::TrimSP(std::wstring(L"  ")), L"");
}

TEST(TextHelpers, CaseInsensitiveComparisonOfAsciiLetters) {
    EXPECT_TRUE(qlb::EqualsNoCase(std::wstring_view(L"QLBMessageCenter.EXE"), L"qlbmessagecenter.exe"));
    EXPECT_FALSE(qlb::EqualsNoCase(std::string_view("abc"), "abd"));
    EXPECT_FALSE(qlb::EqualsNoCase(std::string_view("abc"), "ab"));
    EXPECT_EQ(qlb::ToLowerAscii(std::string_view("HKLM\\Software")), "hklm\\software");
}

TEST(TextHelpers, SplitKeepsEmptyParts) {
    EXPECT_EQ(qlb::Split("a,,b,", ','), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(qlb::Split("", ','), (std::vector<std::string>{""}));
}

}  // namespace
