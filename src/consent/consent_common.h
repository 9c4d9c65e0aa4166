#pragma once
// Small readings of the consent records shared by the request, record, configuration and decision
// code.

#include <string>

namespace qlb::consent {

// "UserLoginFlag" reads exactly "1".
bool IsUserLoggedIn();
// "ServerUpdatedFlag" reads exactly "1": the server has given this device a version of its own.
bool IsServerUpdated();
// The country of every request, lower-cased: the service country once the server has spoken, the
// sale country before.
std::string RequestCountry();
// atoi as the C library does it, without undefined behaviour on overflow.
int TextToInt(const std::string& text);
// Local time as "YYYY-MM-DD HH:MM:SS.mmm".
std::string CurrentTimeWithMilliseconds();

}  // namespace qlb::consent
