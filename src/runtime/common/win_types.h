#pragma once
// The Windows scalar types that the service's interfaces are written in. Wide strings are wchar_t
// strings (UTF-32 on Linux); they hold paths and registry items, narrow strings hold UTF-8 text.

#include <cstdint>

using DWORD = std::uint32_t;
using WORD = std::uint16_t;
using BYTE = std::uint8_t;
using BOOL = int;
using LONG = std::int32_t;
using ULONG_PTR = std::uint64_t;
using REGSAM = std::uint32_t;

// A predefined root key handle, as the 64-bit number that a record or a log line carries.
using HKEY = std::uint64_t;

inline constexpr HKEY HKEY_CLASSES_ROOT = 0xFFFFFFFF80000000ULL;
inline constexpr HKEY HKEY_CURRENT_USER = 0xFFFFFFFF80000001ULL;
inline constexpr HKEY HKEY_LOCAL_MACHINE = 0xFFFFFFFF80000002ULL;
inline constexpr HKEY HKEY_USERS = 0xFFFFFFFF80000003ULL;
inline constexpr HKEY HKEY_CURRENT_CONFIG = 0xFFFFFFFF80000005ULL;

inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_DWORD = 4;

inline constexpr DWORD INFINITE = 0xFFFFFFFF;
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;
