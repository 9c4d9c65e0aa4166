#include "runtime/common/strings.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cwctype>

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsBlank(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n';
}

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        cp = kReplacement;
    }
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

namespace DE {

std::wstring ANSIToUnicode(std::string_view text) {
    std::wstring out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const auto b0 = static_cast<unsigned char>(text[i]);
        int extra = 0;
        char32_t cp = 0;
        if (b0 < 0x80) {
            cp = b0;
        } else if ((b0 & 0xE0) == 0xC0) {
            extra = 1;
            cp = b0 & 0x1F;
        } else if ((b0 & 0xF0) == 0xE0) {
            extra = 2;
            cp = b0 & 0x0F;
        } else if ((b0 & 0xF8) == 0xF0) {
            extra = 3;
            cp = b0 & 0x07;
        } else {
            out.push_back(static_cast<wchar_t>(kReplacement));
            ++i;
            continue;
        }
        bool valid = true;
        int taken = 0;
        for (int k = 1; k <= extra; ++k) {
            if (i + k >= text.size()) {  // a sequence cut off by the end of the text
                valid = false;
                break;
            }
            const auto b = static_cast<unsigned char>(text[i + k]);
            if ((b & 0xC0) != 0x80) {
                valid = false;
                break;
            }
            cp = (cp << 6) | (b & 0x3F);
            ++taken;
        }
        if (taken < extra) {
            // A cut sequence is one replacement; what follows it (often plain ASCII) is kept.
            out.push_back(static_cast<wchar_t>(kReplacement));
            i += 1 + taken;
            continue;
        }
        static constexpr char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
        if (!valid || cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            out.push_back(static_cast<wchar_t>(kReplacement));
            ++i;
            continue;
        }
        out.push_back(static_cast<wchar_t>(cp));
        i += extra + 1;
    }
    return out;
}

std::string UnicodeToANSI(std::wstring_view text) {
    std::string out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        AppendUtf8(out, static_cast<char32_t>(c));
    }
    return out;
}

std::wstring Utf16ToWide(std::u16string_view text) {
    std::wstring out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char16_t u = text[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            const char32_t cp =
                0x10000 + ((static_cast<char32_t>(u) - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            out.push_back(static_cast<wchar_t>(cp));
            ++i;
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            out.push_back(static_cast<wchar_t>(kReplacement));
        } else {
            out.push_back(static_cast<wchar_t>(u));
        }
    }
    return out;
}

std::u16string WideToUtf16(std::wstring_view text) {
    std::u16string out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        auto cp = static_cast<char32_t>(c);
        if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            cp = kReplacement;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

std::wstring TrimSP(std::wstring_view text) {
    size_t b = 0;
    size_t e = text.size();
    while (b < e && IsBlank(text[b]))
        ++b;
    while (e > b && IsBlank(text[e - 1]))
        --e;
    return std::wstring(text.substr(b, e - b));
}

std::string TrimSP(std::string_view text) {
    size_t b = 0;
    size_t e = text.size();
    while (b < e && IsBlank(static_cast<wchar_t>(text[b])))
        ++b;
    while (e > b && IsBlank(static_cast<wchar_t>(text[e - 1])))
        --e;
    return std::string(text.substr(b, e - b));
}

}  // namespace DE

namespace qlb {

namespace {
template <typename C>
C LowerAscii(C c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<C>(c - 'A' + 'a') : c;
}

template <typename C>
bool EqualsNoCaseOf(std::basic_string_view<C> a, std::basic_string_view<C> b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](C x, C y) { return LowerAscii(x) == LowerAscii(y); });
}
}  // namespace

bool EqualsNoCase(std::wstring_view a, std::wstring_view b) noexcept {
    return EqualsNoCaseOf(a, b);
}

bool EqualsNoCase(std::string_view a, std::string_view b) noexcept {
    return EqualsNoCaseOf(a, b);
}

std::wstring ToLowerAscii(std::wstring_view text) {
    std::wstring out(text);
    for (auto& c : out)
        c = LowerAscii(c);
    return out;
}

std::string ToLowerAscii(std::string_view text) {
    std::string out(text);
    for (auto& c : out)
        c = LowerAscii(c);
    return out;
}

std::vector<std::string> Split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t pos = text.find(separator, start);
        parts.emplace_back(
            text.substr(start, pos == std::string_view::npos ? std::string_view::npos : pos - start));
        if (pos == std::string_view::npos)
            break;
        start = pos + 1;
    }
    return parts;
}

}  // namespace qlb
