#pragma once
// Telemetry event codes of the service host.

namespace ServiceEvents {

inline constexpr const char* kInitServiceDone = "619000000";  // IPC server up, before the plugins
inline constexpr const char* kDailyAlive = "619000001";       // each round of the daily loop
inline constexpr const char* kStartupResult = "619000002";    // "/startup": fields "main service", "1"/"0"
inline constexpr const char* kServiceStopped = "619000005";   // end of ServiceMain
inline constexpr const char* kRetailAlive = "619000006";      // each round, on retail machines
inline constexpr const char* kPowerMode = "607006001";        // power manager mode at start
inline constexpr const char* kBiosDate = "607001005";         // BIOS release date at start

}  // namespace ServiceEvents
