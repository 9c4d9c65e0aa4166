#pragma once
// Conversions between the wide strings of paths and registry items and the narrow UTF-8 text of
// telemetry, configuration and IPC, and the small text helpers the service shares.

#include <string>
#include <string_view>
#include <vector>

namespace DE {

// UTF-8 to wide; invalid sequences become U+FFFD.
std::wstring ANSIToUnicode(std::string_view text);
// Wide to UTF-8; code points that cannot be encoded become U+FFFD.
std::string UnicodeToANSI(std::wstring_view text);

// UTF-16 code units (as IPC records carry them, little-endian) to wide and back.
std::wstring Utf16ToWide(std::u16string_view text);
std::u16string WideToUtf16(std::wstring_view text);

// Cuts blanks (space, tab, CR, LF) at both ends.
std::wstring TrimSP(std::wstring_view text);
std::string TrimSP(std::string_view text);

}  // namespace DE

namespace qlb {

// Case-insensitive comparison of ASCII letters, as Windows compares key and image names.
bool EqualsNoCase(std::wstring_view a, std::wstring_view b) noexcept;
bool EqualsNoCase(std::string_view a, std::string_view b) noexcept;
std::wstring ToLowerAscii(std::wstring_view text);
std::string ToLowerAscii(std::string_view text);

// Narrow text of a wide string for log lines.
inline std::string W2U(std::wstring_view text) {
    return DE::UnicodeToANSI(text);
}

std::vector<std::string> Split(std::string_view text, char separator);

}  // namespace qlb
