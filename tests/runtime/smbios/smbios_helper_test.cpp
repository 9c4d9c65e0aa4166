// Brand and SKU answers from the profile's DMI directory.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "runtime/common/machine_profile.h"
#include "runtime/smbios/smbios_helper.h"

namespace {

class SmBiosHelperTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "qlb-dmi-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        qlb::MachineProfile profile;
        profile.dmiDir = dir_;
        qlb::MachineProfile::SetCurrent(profile);
    }
    void TearDown() override {
        qlb::MachineProfile::SetCurrent(qlb::MachineProfile{});
        std::filesystem::remove_all(dir_);
    }
    void Write(const std::string& field, const std::string& text) { std::ofstream(dir_ / field) << text; }
    std::filesystem::path dir_;
};

TEST_F(SmBiosHelperTest, VendorDecidesTheBrandWithoutRegardToCase) {
    SmBiosHelper* helper = SmBiosHelper::GetInstance();
    Write("sys_vendor", "ZorVane\n");
    EXPECT_TRUE(helper->IsZorvaneDevice());
    EXPECT_FALSE(helper->IsLumiraDevice());
    Write("sys_vendor", "LUMIRA\n");
    EXPECT_TRUE(helper->IsLumiraDevice());
    EXPECT_FALSE(helper->IsZorvaneDevice());
    Write("sys_vendor", "ZorVane Computing\n");
    EXPECT_FALSE(helper->IsZorvaneDevice());
}

TEST_F(SmBiosHelperTest, MissingVendorIsNoBrand) {
    EXPECT_FALSE(SmBiosHelper::GetInstance()->IsZorvaneDevice());
    EXPECT_FALSE(SmBiosHelper::GetInstance()->IsLumiraDevice());
}

TEST_F(SmBiosHelperTest, SkuIsTheTrimmedProductSku) {
    EXPECT_EQ(SmBiosHelper::GetInstance()->GetSysSKU(), "");
    Write("product_sku", "  ZV-4410-CN \n");
    EXPECT_EQ(SmBiosHelper::GetInstance()->GetSysSKU(), "ZV-4410-CN");
}

}  // namespace
