#include "consent/account_util.h"

#include "consent/consent_context.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_types.h"
#include "runtime/registry/de_registry.h"

std::string AccountUtil::GetFlag(const std::wstring& path, const std::wstring& name) {
    std::wstring value;
    if (!DE::Registry::GetValue(HKEY_USERS, qlb::consent::CurrentUserSid() + path, name, value,
                                KEY_ALL_ACCESS)) {
        return "0";
    }
    return DE::UnicodeToANSI(value);
}

std::wstring AccountUtil::CreateRegeditPath(const std::wstring& path) {
    const std::wstring fullPath = qlb::consent::CurrentUserSid() + path;
    DE::Registry registry;
    registry.SetRootKey(HKEY_USERS);
    // A key that cannot be made shows up as a failed SetValue of the caller.
    (void)registry.CreateKey(fullPath);
    return fullPath;
}

bool AccountUtil::IsSupportQds() {
    return qlb::MachineProfile::Current().capabilities.plugins.count("QDS") != 0;
}
