#include "consent/consent_common.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "consent/account_util.h"
#include "consent/consent_keys.h"
#include "runtime/common/strings.h"
#include "runtime/http/system_info.h"

namespace qlb::consent {

bool IsUserLoggedIn() {
    return AccountUtil::GetFlag(kAgreementServiceKey, kUserLoginFlagValue) == "1";
}

bool IsServerUpdated() {
    return AccountUtil::GetFlag(kAgreementServiceKey, kServerUpdatedFlagValue) == "1";
}

std::string RequestCountry() {
    if (IsServerUpdated()) {
        return qlb::ToLowerAscii(SystemInfo::GetCurrentUserServiceCountry());
    }
    return qlb::ToLowerAscii(SystemInfo::GetSaleCountry());
}

int TextToInt(const std::string& text) {
    // strtol saturates where atoi would overflow; the narrowing keeps atoi's results for every
    // value that fits.
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::string CurrentTimeWithMilliseconds() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(millis));
    return text;
}

}  // namespace qlb::consent
