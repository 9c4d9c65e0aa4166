#pragma once
// qlbsc: the verbs of the Windows service control tool over the machine's service manager, with its
// output and its exit status (0 on success, 1 on failure).
//
//   qlbsc query NAME | qc NAME | start NAME | stop NAME | delete NAME
//   qlbsc create NAME binPath= PATH [start= auto|demand|disabled] [DisplayName= TEXT]
//   qlbsc config NAME start= auto|demand|disabled
//   qlbsc control NAME CODE|paramchange|netbindadd|netbindremove|netbindenable|netbinddisable
//   qlbsc control NAME shutdown
//   qlbsc control NAME powerevent EVENTTYPE
//   qlbsc control NAME sessionchange EVENTTYPE SESSIONID

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/services/service_control.h"

namespace qlb::sc {

int Run(const std::vector<std::string>& args, platform::ServiceControlManager& manager, std::ostream& out);

// The status block of query, stop and control, as the tool prints it.
std::string FormatStatus(const std::wstring& name, const SERVICE_STATUS& status);
std::string StateName(DWORD state);
std::string TypeText(DWORD type);

// Event types by number (decimal or 0x) or by name ("suspend", "logon", "unlock", ...).
std::optional<DWORD> ParsePowerEventType(const std::string& text);
std::optional<DWORD> ParseSessionEventType(const std::string& text);
std::optional<DWORD> ParseNumber(const std::string& text);

}  // namespace qlb::sc
