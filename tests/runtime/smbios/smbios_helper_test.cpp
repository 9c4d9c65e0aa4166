// Brand and SKU answers from the profile's DMI directory.

#include <gtest/gtest.h>

#include <fstream>

#include "runtime/common/machine_profile.h"
#include "runtime/smbios/smbios_helper.h"
#include "support/temp_dir.h"

namespace {

TEST(SmBiosHelper, VendorDecidesTheBrandWithoutRegardToCaseAndSkuIsTrimmed) {
    qlb::testing::TempDir dir;
    qlb::MachineProfile profile;
    profile.dmiDir = dir.Path();
    qlb::MachineProfile::SetCurrent(profile);
    SmBiosHelper* helper = SmBiosHelper::GetInstance();
    EXPECT_FALSE(helper->IsZorvaneDevice());
    EXPECT_FALSE(helper->IsLumiraDevice());
    EXPECT_EQ(helper->GetSysSKU(), "");
    const struct {
        const char* vendor;
        bool zorvane;
        bool lumira;
    } cases[] = {
        {"ZorVane\n", true, false}, {"LUMIRA\n", false, true}, {"ZorVane Computing\n", false, false}};
    for (const auto& c : cases) {
        std::ofstream(dir / "sys_vendor") << c.vendor;
        EXPECT_EQ(helper->IsZorvaneDevice(), c.zorvane) << c.vendor;
        EXPECT_EQ(helper->IsLumiraDevice(), c.lumira) << c.vendor;
    }
    std::ofstream(dir / "product_sku") << "  ZV-4410-CN \n";
    EXPECT_EQ(helper->GetSysSKU(), "ZV-4410-CN");
    qlb::MachineProfile::SetCurrent(qlb::MachineProfile{});
}

}  // namespace
