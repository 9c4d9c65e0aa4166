#pragma once
// The watchdog device hears of suspend and shutdown: a 24-byte request whose first byte is the event
// code, written to the profile's watchdogDevice.

#include <filesystem>

inline constexpr unsigned char kWdtEventShutdown = 5;
inline constexpr unsigned char kWdtEventSuspend = 6;
inline constexpr unsigned long kWdtIoControlCode = 0x80102040;
inline constexpr std::size_t kWdtRequestSize = 24;

void SentPowerEventToWDT(const unsigned char code);

// The same to another device file (tools and tests).
void SentPowerEventToDevice(const std::filesystem::path& device, const unsigned char code);
