#pragma once
// Which capabilities this device has, and which product version it runs: both are answers of the
// machine profile (capabilities, appVersion).

#include <string>

class QLBSoftShelf {
  public:
    // Never null.
    static QLBSoftShelf* GetInstance();

    // Whether the plugin or feature `name` ("BigData", "DumpReport", "QDS", ...) is on for this device.
    bool IsSupportPlugin(const std::string& name) const;
    // Whether the property `name` ("ZVLoginGuide") holds `value` ("china") on this device.
    bool IsSupportProperty(const std::string& name, const std::string& value) const;

  private:
    QLBSoftShelf() = default;
};

class QuillbarVersionMgr {
  public:
    // Never null here; callers still test it, as the manager may be missing on other builds.
    static QuillbarVersionMgr* GetInstance();

    // The product's own version, "1.0.0.0" unless the profile says otherwise.
    std::string GetAppVersion() const;

  private:
    QuillbarVersionMgr() = default;
};
