#pragma once
// SMBIOS strings of this machine, read from the machine profile's dmiDir (sysfs on a real machine).

#include <filesystem>
#include <string>

class SmBiosHelper {
  public:
    static SmBiosHelper* GetInstance();

    // "ZorVane" (any case) in sys_vendor.
    bool IsZorvaneDevice() const;
    // "Lumira" (any case) in sys_vendor.
    bool IsLumiraDevice() const;
    // product_sku, without the trailing line end; empty when unreadable.
    std::string GetSysSKU() const;
    std::string GetSysVendor() const;

    // One field of the DMI directory, trimmed; empty when unreadable.
    static std::string ReadDmiField(const std::filesystem::path& dmiDir, const std::string& field);

  private:
    SmBiosHelper() = default;
};
