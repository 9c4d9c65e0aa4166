#include "runtime/smbios/smbios_helper.h"

#include <fstream>

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"

SmBiosHelper* SmBiosHelper::GetInstance() {
    static SmBiosHelper instance;
    return &instance;
}

std::string SmBiosHelper::ReadDmiField(const std::filesystem::path& dmiDir, const std::string& field) {
    std::ifstream in(dmiDir / field, std::ios::binary);
    if (!in) {
        return {};
    }
    // sysfs attributes are one short line; a larger file is not a DMI field.
    std::string text;
    char buffer[4096];
    in.read(buffer, sizeof buffer);
    text.assign(buffer, static_cast<std::size_t>(in.gcount()));
    return DE::TrimSP(text);
}

std::string SmBiosHelper::GetSysVendor() const {
    return ReadDmiField(qlb::MachineProfile::Current().dmiDir, "sys_vendor");
}

bool SmBiosHelper::IsZorvaneDevice() const {
    return qlb::EqualsNoCase(GetSysVendor(), "ZorVane");
}

bool SmBiosHelper::IsLumiraDevice() const {
    return qlb::EqualsNoCase(GetSysVendor(), "Lumira");
}

std::string SmBiosHelper::GetSysSKU() const {
    return ReadDmiField(qlb::MachineProfile::Current().dmiDir, "product_sku");
}
