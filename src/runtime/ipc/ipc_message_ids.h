#pragma once
// Message ids of the IPC channel: the owning module's number in the high 16 bits, an ordinal below.
// Never renumber.

#include <cstdint>

// Requests the service serves, in the order it registers them.
inline constexpr std::int32_t MSG_REG_EDIT = 0x30002;
inline constexpr std::int32_t MSG_START_MSG_CENTER = 0x30003;
inline constexpr std::int32_t MSG_GET_DISK_INFO = 0x30004;
inline constexpr std::int32_t MSG_STARTUP_WINDOWS_UPDATE = 0x200007;
inline constexpr std::int32_t MSG_SETUP_DRIVER = 0x30008;  // answered with the same id
inline constexpr std::int32_t MSG_START_UPDATE_INSTALL = 0x30006;
inline constexpr std::int32_t MSG_PCMONITOR_LOG = 0x3000E;  // typed: a LogInfo stream
inline constexpr std::int32_t MSG_CAPTURE_LOG_PERF = 0x3000F;
inline constexpr std::int32_t MSG_CAPTURE_LOG_WIFI = 0x30010;
inline constexpr std::int32_t MSG_CAPTURE_LOG_BT = 0x30011;
inline constexpr std::int32_t MSG_CAPTURE_LOG_STABILITY = 0x30012;
inline constexpr std::int32_t MSG_CAPTURE_LOG_GOODIX = 0x30013;
inline constexpr std::int32_t MSG_CAPTURE_LOG_AUDIO = 0x30015;
inline constexpr std::int32_t MSG_CAPTURE_LOG_GFX = 0x30017;
inline constexpr std::int32_t MSG_CAPTURE_LOG_GLIDEPAD = 0x3001E;
inline constexpr std::int32_t MSG_LOG_SWITCH = 0x30073;
inline constexpr std::int32_t MSG_CAPTURE_SWITCH = 0x30074;
inline constexpr std::int32_t MSG_INIT_FIREWALL = 0x30077;  // answered with the same id
inline constexpr std::int32_t MSG_SET_LOGO = 0x30075;
inline constexpr std::int32_t MSG_LOGO_STATUS_GET = 0x30076;
inline constexpr std::int32_t MSG_LOGO_SUPPORT_QUERY = 0x3F0003;
inline constexpr std::int32_t MSG_RESTART_PC = 0xF0006;
inline constexpr std::int32_t MSG_FORCE_KILL = 0x30078;
inline constexpr std::int32_t MSG_UPDATE = 0x3007B;
inline constexpr std::int32_t MSG_START_INSTALL_NIMBRA = 0x30085;
inline constexpr std::int32_t MSG_START_INSTALL_VRASSISTANT = 0x30087;
inline constexpr std::int32_t MSG_START_INSTALL_APP = 0x30088;
inline constexpr std::int32_t MSG_BOOT_RECORD_QUERY = 0xB0030;

// Messages the service only sends.
inline constexpr std::int32_t MSG_DISK_INFO_RESULT = 0x30005;
inline constexpr std::int32_t MSG_UPDATE_INSTALL_RESULT = 0x30007;
inline constexpr std::int32_t MSG_WINDOWS_UPDATE_RESULT = 0x200008;
inline constexpr std::int32_t MSG_INSTALL_NIMBRA_RESULT = 0x30084;
inline constexpr std::int32_t MSG_INSTALL_VRASSISTANT_RESULT = 0x30086;
inline constexpr std::int32_t MSG_INSTALL_APP_RESULT = 0x30089;
inline constexpr std::int32_t MSG_SET_LOGO_RESULT = 0x3F0001;
inline constexpr std::int32_t MSG_LOGO_STATUS_RESULT = 0x3F0002;
inline constexpr std::int32_t MSG_LOGO_SUPPORT_RESULT = 0x3F0004;
inline constexpr std::int32_t MSG_BOOT_RECORD_NOTICE = 0x44000E;
inline constexpr std::int32_t MSG_QUIT_BROADCAST = 0x10007;
