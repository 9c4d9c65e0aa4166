#pragma once
// Module ids of the IPC channel: the module's ordinal in the high 16 bits, zero below. Never renumber.

#include <cstdint>

inline constexpr std::int32_t MODULE_BROADCAST_ID = 0;
inline constexpr std::int32_t MODULE_MAINSERVICE_ID = 0x30000;
// Receivers that the service addresses by a fixed id.
inline constexpr std::int32_t MODULE_UPDATE_INSTALL_RESULT_ID = 0x50000;  // result of OnStartUpdateInstall
inline constexpr std::int32_t MODULE_BOOT_LOGO_ID = 0x3F0000;             // every boot logo answer
inline constexpr std::int32_t MODULE_BOOT_RECORD_ID = 0x440000;           // the boot record notice
inline constexpr std::int32_t MODULE_NIMBRA_INSTALL_RESULT_ID = 0x670000;
inline constexpr std::int32_t MODULE_VRASSISTANT_INSTALL_RESULT_ID = 0x680000;
inline constexpr std::int32_t MODULE_APP_INSTALL_RESULT_ID = 0x730000;
