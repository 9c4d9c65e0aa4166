#pragma once
// The fixed record of the registry edit request and the keys of the setting requests.

#include <cstddef>
#include <cstdint>
#include <string>

namespace qlb::messageservice {

// command u32 @0, rootKey u64 @4 (unaligned), keyPath 128 UTF-16 @12, valueName 128 UTF-16 @268,
// valueData 130 UTF-16 (or a u32) @524, valueType u32 @784; little-endian, packed.
inline constexpr std::size_t kRegEditRecordSize = 788;
inline constexpr std::uint32_t kRegEditCreateKey = 1;
inline constexpr std::uint32_t kRegEditSetValue = 2;

inline constexpr wchar_t kLoginGuideKey[] = L"SOFTWARE\\Tessalink\\ZVLoginGuide";

struct RegEditRecord {
    std::uint32_t command = 0;
    std::uint64_t rootKey = 0;
    std::wstring keyPath;
    std::wstring valueName;
    std::wstring valueString;      // valueData as text (type 1)
    std::int32_t valueNumber = 0;  // valueData's first 4 bytes (type 4)
    std::uint32_t valueType = 0;
};

// Decodes a record of exactly kRegEditRecordSize bytes.
RegEditRecord DecodeRegEditRecord(const unsigned char* record);

}  // namespace qlb::messageservice
