#pragma once
// Windows error numbers. Our own layers report failures with these numbers so that the log lines
// which print "the last error" keep the meaning an operator of the product knows.

#include <cerrno>
#include <cstdint>

namespace win {

inline constexpr std::uint32_t ERROR_SUCCESS = 0;
inline constexpr std::uint32_t ERROR_INVALID_FUNCTION = 1;
inline constexpr std::uint32_t ERROR_FILE_NOT_FOUND = 2;
inline constexpr std::uint32_t ERROR_PATH_NOT_FOUND = 3;
inline constexpr std::uint32_t ERROR_ACCESS_DENIED = 5;
inline constexpr std::uint32_t ERROR_INVALID_HANDLE = 6;
inline constexpr std::uint32_t ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr std::uint32_t ERROR_INVALID_DATA = 13;
inline constexpr std::uint32_t ERROR_OUTOFMEMORY = 14;
inline constexpr std::uint32_t ERROR_WRITE_FAULT = 29;
inline constexpr std::uint32_t ERROR_READ_FAULT = 30;
inline constexpr std::uint32_t ERROR_SHARING_VIOLATION = 32;
inline constexpr std::uint32_t ERROR_LOCK_VIOLATION = 33;
inline constexpr std::uint32_t ERROR_NOT_SUPPORTED = 50;
inline constexpr std::uint32_t ERROR_FILE_EXISTS = 80;
inline constexpr std::uint32_t ERROR_INVALID_PARAMETER = 87;
inline constexpr std::uint32_t ERROR_BROKEN_PIPE = 109;
inline constexpr std::uint32_t ERROR_DISK_FULL = 112;
inline constexpr std::uint32_t ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr std::uint32_t ERROR_INVALID_NAME = 123;
inline constexpr std::uint32_t ERROR_MOD_NOT_FOUND = 126;
inline constexpr std::uint32_t ERROR_PROC_NOT_FOUND = 127;
inline constexpr std::uint32_t ERROR_BAD_ARGUMENTS = 160;
inline constexpr std::uint32_t ERROR_BUSY = 170;
inline constexpr std::uint32_t ERROR_ALREADY_EXISTS = 183;
inline constexpr std::uint32_t ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr std::uint32_t ERROR_BAD_EXE_FORMAT = 193;
inline constexpr std::uint32_t ERROR_MORE_DATA = 234;
inline constexpr std::uint32_t ERROR_WAIT_TIMEOUT = 258;
inline constexpr std::uint32_t ERROR_NO_MORE_ITEMS = 259;
inline constexpr std::uint32_t ERROR_NOT_OWNER = 288;
inline constexpr std::uint32_t ERROR_PARTIAL_COPY = 299;
inline constexpr std::uint32_t ERROR_BADDB = 1009;
inline constexpr std::uint32_t ERROR_BADKEY = 1010;
inline constexpr std::uint32_t ERROR_CANTOPEN = 1011;
inline constexpr std::uint32_t ERROR_CANTREAD = 1012;
inline constexpr std::uint32_t ERROR_CANTWRITE = 1013;
inline constexpr std::uint32_t ERROR_REGISTRY_CORRUPT = 1015;
inline constexpr std::uint32_t ERROR_REGISTRY_IO_FAILED = 1016;
inline constexpr std::uint32_t ERROR_KEY_DELETED = 1018;
inline constexpr std::uint32_t ERROR_KEY_HAS_CHILDREN = 1020;
inline constexpr std::uint32_t ERROR_DEPENDENT_SERVICES_RUNNING = 1051;
inline constexpr std::uint32_t ERROR_INVALID_SERVICE_CONTROL = 1052;
inline constexpr std::uint32_t ERROR_SERVICE_REQUEST_TIMEOUT = 1053;
inline constexpr std::uint32_t ERROR_SERVICE_NO_THREAD = 1054;
inline constexpr std::uint32_t ERROR_SERVICE_DATABASE_LOCKED = 1055;
inline constexpr std::uint32_t ERROR_SERVICE_ALREADY_RUNNING = 1056;
inline constexpr std::uint32_t ERROR_SERVICE_DISABLED = 1058;
inline constexpr std::uint32_t ERROR_SERVICE_DOES_NOT_EXIST = 1060;
inline constexpr std::uint32_t ERROR_SERVICE_CANNOT_ACCEPT_CTRL = 1061;
inline constexpr std::uint32_t ERROR_SERVICE_NOT_ACTIVE = 1062;
inline constexpr std::uint32_t ERROR_FAILED_SERVICE_CONTROLLER_CONNECT = 1063;
inline constexpr std::uint32_t ERROR_EXCEPTION_IN_SERVICE = 1064;
inline constexpr std::uint32_t ERROR_SERVICE_SPECIFIC_ERROR = 1066;
inline constexpr std::uint32_t ERROR_PROCESS_ABORTED = 1067;
inline constexpr std::uint32_t ERROR_SERVICE_MARKED_FOR_DELETE = 1072;
inline constexpr std::uint32_t ERROR_SERVICE_EXISTS = 1073;
inline constexpr std::uint32_t ERROR_SHUTDOWN_IN_PROGRESS = 1115;
inline constexpr std::uint32_t ERROR_NOT_FOUND = 1168;
inline constexpr std::uint32_t ERROR_NO_SUCH_LOGON_SESSION = 1312;
inline constexpr std::uint32_t ERROR_PRIVILEGE_NOT_HELD = 1314;
inline constexpr std::uint32_t ERROR_NONE_MAPPED = 1332;
inline constexpr std::uint32_t ERROR_INVALID_SID = 1337;
inline constexpr std::uint32_t ERROR_TIMEOUT = 1460;

// The Windows number closest in meaning to a POSIX errno.
std::uint32_t FromErrno(int err) noexcept;

// The message text that Windows shows for the number, as the command-line tools print it.
const char* MessageText(std::uint32_t error) noexcept;

}  // namespace win
