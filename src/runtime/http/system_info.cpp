#include "runtime/http/system_info.h"

#include "runtime/common/machine_profile.h"

std::string SystemInfo::GetCurrentUserServiceCountry() {
    return qlb::MachineProfile::Current().region.serviceCountry;
}

std::string SystemInfo::GetSaleCountry() {
    return qlb::MachineProfile::Current().region.saleCountry;
}

std::string SystemInfo::GetCurrentUserLanguage() {
    return qlb::MachineProfile::Current().region.language;
}
