#include "runtime/registry/registry_path.h"

#include <array>

#include "runtime/common/strings.h"

namespace qlb::registry {
namespace {

struct HiveName {
    Hive hive;
    const wchar_t* longName;
    const wchar_t* shortName;
};

constexpr std::array<HiveName, 5> kHiveNames{{
    {Hive::ClassesRoot, L"HKEY_CLASSES_ROOT", L"HKCR"},
    {Hive::CurrentUser, L"HKEY_CURRENT_USER", L"HKCU"},
    {Hive::LocalMachine, L"HKEY_LOCAL_MACHINE", L"HKLM"},
    {Hive::Users, L"HKEY_USERS", L"HKU"},
    {Hive::CurrentConfig, L"HKEY_CURRENT_CONFIG", L"HKCC"},
}};

}  // namespace

SysResult<Hive> HiveOfRoot(HKEY root) noexcept {
    // A handle that travelled through a 32-bit field loses its sign extension; both forms name the hive.
    const std::uint64_t low = root & 0xFFFFFFFFULL;
    const std::uint64_t high = root >> 32;
    if ((high != 0 && high != 0xFFFFFFFFULL) || (low & 0xFFFFFFF0ULL) != 0x80000000ULL) {
        return SysResult<Hive>::Fail(win::ERROR_INVALID_HANDLE);
    }
    for (const auto& entry : kHiveNames) {
        if (static_cast<std::uint64_t>(entry.hive) == (low & 0xF)) {
            return SysResult<Hive>::Ok(entry.hive);
        }
    }
    return SysResult<Hive>::Fail(win::ERROR_INVALID_HANDLE);
}

HKEY RootOfHive(Hive hive) noexcept {
    return 0xFFFFFFFF80000000ULL | static_cast<std::uint64_t>(hive);
}

const wchar_t* HiveLongName(Hive hive) noexcept {
    for (const auto& entry : kHiveNames) {
        if (entry.hive == hive) {
            return entry.longName;
        }
    }
    return L"";
}

std::optional<Hive> HiveFromName(std::wstring_view name) noexcept {
    for (const auto& entry : kHiveNames) {
        if (qlb::EqualsNoCase(name, entry.longName) || qlb::EqualsNoCase(name, entry.shortName)) {
            return entry.hive;
        }
    }
    return std::nullopt;
}

SysResult<std::vector<std::wstring>> SplitKeyPath(std::wstring_view path) {
    using Result = SysResult<std::vector<std::wstring>>;
    if (!path.empty() && path.front() == L'\\') {
        path.remove_prefix(1);
    }
    if (!path.empty() && path.back() == L'\\') {
        path.remove_suffix(1);
    }
    if (path.size() > kMaxKeyPathLength) {
        return Result::Fail(win::ERROR_INVALID_PARAMETER);
    }
    std::vector<std::wstring> names;
    if (path.empty()) {
        return Result::Ok(std::move(names));
    }
    std::size_t start = 0;
    while (true) {
        const std::size_t end = path.find(L'\\', start);
        const std::wstring_view name =
            path.substr(start, end == std::wstring_view::npos ? path.npos : end - start);
        if (name.empty()) {
            return Result::Fail(win::ERROR_BADKEY);
        }
        if (name.size() > kMaxKeyNameLength || names.size() >= kMaxKeyDepth) {
            return Result::Fail(win::ERROR_INVALID_PARAMETER);
        }
        names.emplace_back(name);
        if (end == std::wstring_view::npos) {
            break;
        }
        start = end + 1;
    }
    return Result::Ok(std::move(names));
}

SysStatus CheckValueName(std::wstring_view name) noexcept {
    return name.size() > kMaxValueNameLength ? SysStatus::Fail(win::ERROR_INVALID_PARAMETER)
                                             : SysStatus::Ok();
}

wchar_t FoldChar(wchar_t c) noexcept {
    const auto u = static_cast<std::uint32_t>(c);
    if (u < 0x80) {
        return (u >= 'a' && u <= 'z') ? static_cast<wchar_t>(u - 0x20) : c;
    }
    if (u >= 0xE0 && u <= 0xFE && u != 0xF7) {
        return static_cast<wchar_t>(u - 0x20);
    }
    if (u == 0xFF) {
        return static_cast<wchar_t>(0x178);
    }
    // Latin Extended-A pairs capitals and small letters as even and odd neighbours, with the shift
    // turning over at U+0138 and U+0149.
    if ((u >= 0x100 && u <= 0x137) || (u >= 0x14A && u <= 0x177)) {
        return static_cast<wchar_t>(u & ~1U);
    }
    if ((u >= 0x139 && u <= 0x148) || (u >= 0x179 && u <= 0x17E)) {
        return (u & 1U) ? c : static_cast<wchar_t>(u - 1);
    }
    if (u >= 0x3B1 && u <= 0x3CB && u != 0x3C2) {
        return static_cast<wchar_t>(u - 0x20);
    }
    if (u >= 0x430 && u <= 0x44F) {
        return static_cast<wchar_t>(u - 0x20);
    }
    if (u >= 0x450 && u <= 0x45F) {
        return static_cast<wchar_t>(u - 0x50);
    }
    return c;
}

std::wstring FoldName(std::wstring_view name) {
    std::wstring folded(name);
    for (auto& c : folded) {
        c = FoldChar(c);
    }
    return folded;
}

}  // namespace qlb::registry
