#pragma once
// What device and build the service runs on, as the update list filters and the start-up telemetry
// ask. Only the power manager's mode is here so far; the version and device queries come with the
// update list.

#include <string>

namespace SystemEnvironment {

inline constexpr wchar_t kPowerManagerKey[] = L"Software\\Tessalink\\QLBPowerManager";
inline constexpr wchar_t kPowerManagerIntellModeValue[] = L"PowerManagerIntellMode";

// The value PowerManagerIntellMode of the power manager's key, "1" when it is missing or empty.
std::string GetPowerManagerIntellMode();

}  // namespace SystemEnvironment

inline constexpr wchar_t kCrashControlKey[] = L"SYSTEM\\CurrentControlSet\\Control\\CrashControl";

// A small memory dump (3) becomes a kernel memory dump (2); every other setting stays.
void RelaxCrashDumpType();
