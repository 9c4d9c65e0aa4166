#pragma once
// Process control requests: starting the user-mode message centre, waiting for and ending the
// product's processes by name, and ending a process by force through the process monitor module.
// The operations are static members of ServiceMsgClient (service_msg_client.h), shared with the
// update worker and the session tracking.

#include <string>

#include "runtime/common/win_types.h"
#include "runtime/process/mon_process.h"

namespace qlb::process_control {

inline constexpr wchar_t kMsgCenterProcessName[] = L"QLBMessageCenter.exe";
inline constexpr wchar_t kUserInterfaceProcessName[] = L"Tessalink.exe";

// How long a process asked to end has to do so by itself before it is ended by force.
inline constexpr DWORD kGraceMs = 1000;

// The process id of a force-kill request: decimal text up to the first NUL, converted as the
// standard stoul does on a platform whose unsigned long has 32 bits. Throws std::invalid_argument
// ("stoul") on text without digits and std::out_of_range ("stoul argument out of range") above
// 0xFFFFFFFF. The text is never read beyond `length` bytes.
DWORD ParseProcessIdText(const unsigned char* data, std::int32_t length);

}  // namespace qlb::process_control
