#pragma once
// Region answers of this machine: the machine profile's "region".

#include <string>

class SystemInfo {
  public:
    // The country the current user's cloud services are homed in, e.g. "CN".
    static std::string GetCurrentUserServiceCountry();
    // The country the device was sold for.
    static std::string GetSaleCountry();
    // The current user's language, e.g. "zh-CN".
    static std::string GetCurrentUserLanguage();
};
