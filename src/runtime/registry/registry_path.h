#pragma once
// Key paths and names of the registry store: which hive a root handle names, how a key path splits
// into names, the limits a name must keep, and the case folding under which names compare equal.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/common/result.h"
#include "runtime/common/win_types.h"

namespace qlb::registry {

// Limits of the registry: a key name, a value name, the depth of the tree and a full key path.
inline constexpr std::size_t kMaxKeyNameLength = 255;
inline constexpr std::size_t kMaxValueNameLength = 16383;
inline constexpr std::size_t kMaxKeyDepth = 512;
inline constexpr std::size_t kMaxKeyPathLength = 32767;

// The hives the store holds. The number is the low byte of the predefined handle.
enum class Hive : std::uint8_t {
    ClassesRoot = 0,
    CurrentUser = 1,
    LocalMachine = 2,
    Users = 3,
    CurrentConfig = 5,
};

// The hive of a predefined root handle, in its 64-bit form (0xFFFFFFFF8000000N) or its 32-bit form
// (0x8000000N); ERROR_INVALID_HANDLE for anything else.
SysResult<Hive> HiveOfRoot(HKEY root) noexcept;
HKEY RootOfHive(Hive hive) noexcept;
// "HKEY_LOCAL_MACHINE" and so on.
const wchar_t* HiveLongName(Hive hive) noexcept;
// Accepts the long names and the short forms HKLM, HKU, HKCU, HKCR, HKCC, without regard to case.
std::optional<Hive> HiveFromName(std::wstring_view name) noexcept;

// The names of a key path below its hive. A leading '\' and one trailing '\' are dropped; an empty
// path is the hive itself. An empty name inside the path is ERROR_BADKEY; a name over 255 characters,
// a path over 32767 characters or deeper than 512 levels is ERROR_INVALID_PARAMETER.
SysResult<std::vector<std::wstring>> SplitKeyPath(std::wstring_view path);
// ERROR_INVALID_PARAMETER for a value name over 16383 characters.
SysStatus CheckValueName(std::wstring_view name) noexcept;

// The form under which two names compare equal: upper case, as the registry compares names. Covers
// ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic; other characters compare as they are.
wchar_t FoldChar(wchar_t c) noexcept;
std::wstring FoldName(std::wstring_view name);

}  // namespace qlb::registry
