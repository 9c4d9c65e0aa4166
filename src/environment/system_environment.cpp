#include "environment/system_environment.h"

#include "runtime/common/strings.h"
#include "runtime/common/win_types.h"
#include "runtime/registry/de_registry.h"

namespace SystemEnvironment {

std::string GetPowerManagerIntellMode() {
    std::wstring mode;
    // A failed read leaves the text empty, which means the default.
    DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kPowerManagerKey, kPowerManagerIntellModeValue, mode,
                           KEY_ALL_ACCESS);
    if (mode.empty()) {
        return std::string(1, '1');
    }
    return DE::UnicodeToANSI(mode);
}

}  // namespace SystemEnvironment

void RelaxCrashDumpType() {
    DWORD type = 0;
    if (DE::Registry::GetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", type,
                               KEY_ALL_ACCESS) &&
        type == 3) {
        const DWORD kernelDump = 2;
        DE::Registry::SetValue(HKEY_LOCAL_MACHINE, kCrashControlKey, L"CrashDumpEnabled", kernelDump,
                               KEY_ALL_ACCESS);
    }
}
