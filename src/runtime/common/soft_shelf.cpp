#include "runtime/common/soft_shelf.h"

#include <algorithm>

#include "runtime/common/machine_profile.h"

QLBSoftShelf* QLBSoftShelf::GetInstance() {
    static QLBSoftShelf shelf;
    return &shelf;
}

bool QLBSoftShelf::IsSupportPlugin(const std::string& name) const {
    return qlb::MachineProfile::Current().capabilities.plugins.count(name) != 0;
}

bool QLBSoftShelf::IsSupportProperty(const std::string& name, const std::string& value) const {
    const auto& properties = qlb::MachineProfile::Current().capabilities.properties;
    const auto it = properties.find(name);
    return it != properties.end() &&
           std::find(it->second.begin(), it->second.end(), value) != it->second.end();
}

QuillbarVersionMgr* QuillbarVersionMgr::GetInstance() {
    static QuillbarVersionMgr manager;
    return &manager;
}

std::string QuillbarVersionMgr::GetAppVersion() const {
    return qlb::MachineProfile::Current().appVersion;
}
