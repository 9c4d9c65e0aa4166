#pragma once
// Account helpers of the consent records: reading and creating values under the current user's
// subkey of HKEY_USERS, and whether this device takes part in the agreement service.

#include <string>

class AccountUtil {
  public:
    // The string value `name` under the current user's subkey + `path`, as UTF-8. A value that does not
    // exist, or cannot be read, reads "0".
    static std::string GetFlag(const std::wstring& path, const std::wstring& name);

    // Creates the current user's subkey + `path` if needed; returns that full key path for
    // DE::Registry::SetValue under HKEY_USERS.
    static std::wstring CreateRegeditPath(const std::wstring& path);

    // True when the machine profile's capabilities hold the plugin "QDS".
    static bool IsSupportQds();
};
