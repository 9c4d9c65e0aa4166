#include "tools/qlbsc/sc_commands.h"

#include <charconv>
#include <cstdio>
#include <map>

#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"

namespace qlb::sc {
namespace {

std::string Hex(DWORD v) {
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%x", v);
    return buf;
}

std::string Field(const char* key, const std::string& value) {
    char buf[64];
    std::snprintf(buf, sizeof(buf), "        %-19s: ", key);
    return std::string(buf) + value + "\n";
}

int Fail(std::ostream& out, const char* operation, std::uint32_t error) {
    out << "[SC] " << operation << " FAILED " << error << ":\n\n" << win::MessageText(error) << "\n\n";
    return 1;
}

void Usage(std::ostream& out) {
    out << "DESCRIPTION:\n"
           "        qlbsc is a command line program used for communicating with the\n"
           "        service manager and services.\n"
           "USAGE:\n"
           "        qlbsc <command> [service name] <option1> <option2>...\n\n"
           "        Commands:\n"
           "          query-----------Queries the status for a service.\n"
           "          qc--------------Queries the configuration information for a service.\n"
           "          start-----------Starts a service.\n"
           "          stop------------Sends a STOP request to a service.\n"
           "          control---------Sends a CONTROL to a service (also shutdown,\n"
           "                          powerevent EVENTTYPE, sessionchange EVENTTYPE SESSIONID).\n"
           "          create----------Creates a service: binPath= PATH [start= auto|demand|disabled]\n"
           "                          [DisplayName= TEXT].\n"
           "          config----------Changes the start type of a service: start= auto|demand|disabled.\n"
           "          delete----------Deletes a service.\n";
}

std::optional<DWORD> ParseStartType(const std::string& text) {
    const std::string lower = ToLowerAscii(text);
    if (lower == "auto") {
        return SERVICE_AUTO_START;
    }
    if (lower == "demand") {
        return SERVICE_DEMAND_START;
    }
    if (lower == "disabled") {
        return SERVICE_DISABLED;
    }
    if (lower == "boot") {
        return SERVICE_BOOT_START;
    }
    if (lower == "system") {
        return SERVICE_SYSTEM_START;
    }
    return std::nullopt;
}

std::string StartTypeText(DWORD start) {
    switch (start) {
        case SERVICE_BOOT_START:
            return "0   BOOT_START";
        case SERVICE_SYSTEM_START:
            return "1   SYSTEM_START";
        case SERVICE_AUTO_START:
            return "2   AUTO_START";
        case SERVICE_DEMAND_START:
            return "3   DEMAND_START";
        case SERVICE_DISABLED:
            return "4   DISABLED";
        default:
            return std::to_string(start);
    }
}

std::string ErrorControlText(DWORD control) {
    switch (control) {
        case 0:
            return "0   IGNORE";
        case 1:
            return "1   NORMAL";
        case 2:
            return "2   SEVERE";
        case 3:
            return "3   CRITICAL";
        default:
            return std::to_string(control);
    }
}

// "key=" options: the key (with its '=') and the value that follows as the next word.
std::optional<std::map<std::string, std::string>> ParseOptions(const std::vector<std::string>& args,
                                                               std::size_t from) {
    std::map<std::string, std::string> options;
    for (std::size_t i = from; i < args.size(); ++i) {
        const std::string& word = args[i];
        if (word.size() < 2 || word.back() != '=') {
            return std::nullopt;
        }
        if (i + 1 >= args.size()) {
            return std::nullopt;
        }
        options[ToLowerAscii(word)] = args[++i];
    }
    return options;
}

std::wstring W(const std::string& text) {
    return DE::ANSIToUnicode(text);
}

int Query(const std::wstring& name, platform::ServiceControlManager& manager, std::ostream& out) {
    if (auto st = manager.OpenService(name, SERVICE_ALL_ACCESS); !st) {
        return Fail(out, "OpenService", st.error);
    }
    const auto status = manager.QueryServiceStatus(name);
    if (!status) {
        return Fail(out, "QueryServiceStatus", status.error);
    }
    out << FormatStatus(name, status.value);
    return 0;
}

int QueryConfig(const std::wstring& name, platform::ServiceControlManager& manager, std::ostream& out) {
    if (auto st = manager.OpenService(name, SERVICE_ALL_ACCESS); !st) {
        return Fail(out, "OpenService", st.error);
    }
    const auto config = manager.QueryServiceConfig(name);
    if (!config) {
        return Fail(out, "QueryServiceConfig", config.error);
    }
    const auto& c = config.value;
    out << "[SC] QueryServiceConfig SUCCESS\n\n";
    out << "SERVICE_NAME: " << DE::UnicodeToANSI(name) << "\n";
    out << Field("TYPE", TypeText(c.serviceType));
    out << Field("START_TYPE", StartTypeText(c.startType));
    out << Field("ERROR_CONTROL", ErrorControlText(c.errorControl));
    out << Field("BINARY_PATH_NAME", DE::UnicodeToANSI(c.binaryPath));
    out << Field("LOAD_ORDER_GROUP", "");
    out << Field("TAG", "0");
    out << Field("DISPLAY_NAME", DE::UnicodeToANSI(c.displayName));
    out << Field("DEPENDENCIES", "");
    out << Field("SERVICE_START_NAME", DE::UnicodeToANSI(c.objectName));
    return 0;
}

int Start(const std::wstring& name, platform::ServiceControlManager& manager, std::ostream& out) {
    if (auto st = manager.OpenService(name, SERVICE_ALL_ACCESS); !st) {
        return Fail(out, "OpenService", st.error);
    }
    if (auto st = manager.StartService(name); !st) {
        return Fail(out, "StartService", st.error);
    }
    const auto status = manager.QueryServiceStatus(name);
    if (!status) {
        return Fail(out, "QueryServiceStatus", status.error);
    }
    out << FormatStatus(name, status.value);
    return 0;
}

int Control(const std::wstring& name, DWORD control, DWORD eventType, DWORD sessionId,
            platform::ServiceControlManager& manager, std::ostream& out) {
    if (auto st = manager.OpenService(name, SERVICE_ALL_ACCESS); !st) {
        return Fail(out, "OpenService", st.error);
    }
    const auto status = manager.ControlService(name, control, eventType, sessionId);
    if (!status) {
        return Fail(out, "ControlService", status.error);
    }
    out << FormatStatus(name, status.value);
    return 0;
}

int ControlVerb(const std::vector<std::string>& args, platform::ServiceControlManager& manager,
                std::ostream& out) {
    if (args.size() < 3) {
        Usage(out);
        return 1;
    }
    const std::wstring name = W(args[1]);
    const std::string code = ToLowerAscii(args[2]);
    static const std::map<std::string, DWORD> named = {
        {"paramchange", SERVICE_CONTROL_PARAMCHANGE},       {"netbindadd", SERVICE_CONTROL_NETBINDADD},
        {"netbindremove", SERVICE_CONTROL_NETBINDREMOVE},   {"netbindenable", SERVICE_CONTROL_NETBINDENABLE},
        {"netbinddisable", SERVICE_CONTROL_NETBINDDISABLE}, {"shutdown", SERVICE_CONTROL_SHUTDOWN},
        {"interrogate", SERVICE_CONTROL_INTERROGATE},
    };
    if (code == "powerevent") {
        const auto type = args.size() == 4 ? ParsePowerEventType(args[3]) : std::nullopt;
        if (!type) {
            return Fail(out, "ControlService", win::ERROR_INVALID_PARAMETER);
        }
        return Control(name, SERVICE_CONTROL_POWEREVENT, *type, 0, manager, out);
    }
    if (code == "sessionchange") {
        const auto type = args.size() == 5 ? ParseSessionEventType(args[3]) : std::nullopt;
        const auto session = args.size() == 5 ? ParseNumber(args[4]) : std::nullopt;
        if (!type || !session) {
            return Fail(out, "ControlService", win::ERROR_INVALID_PARAMETER);
        }
        return Control(name, SERVICE_CONTROL_SESSIONCHANGE, *type, *session, manager, out);
    }
    if (args.size() != 3) {
        Usage(out);
        return 1;
    }
    if (const auto it = named.find(code); it != named.end()) {
        return Control(name, it->second, 0, 0, manager, out);
    }
    const auto number = ParseNumber(code);
    if (!number) {
        return Fail(out, "ControlService", win::ERROR_INVALID_PARAMETER);
    }
    return Control(name, *number, 0, 0, manager, out);
}

int Create(const std::vector<std::string>& args, platform::ServiceControlManager& manager,
           std::ostream& out) {
    const auto options = args.size() >= 2 ? ParseOptions(args, 2) : std::nullopt;
    if (!options) {
        Usage(out);
        return 1;
    }
    platform::ServiceConfig config;
    config.name = W(args[1]);
    config.startType = SERVICE_DEMAND_START;
    config.errorControl = SERVICE_ERROR_NORMAL;
    for (const auto& [key, value] : *options) {
        if (key == "binpath=") {
            config.binaryPath = W(value);
        } else if (key == "start=") {
            const auto start = ParseStartType(value);
            if (!start) {
                return Fail(out, "CreateService", win::ERROR_INVALID_PARAMETER);
            }
            config.startType = *start;
        } else if (key == "displayname=") {
            config.displayName = W(value);
        } else {
            return Fail(out, "CreateService", win::ERROR_INVALID_PARAMETER);
        }
    }
    if (config.binaryPath.empty()) {
        return Fail(out, "CreateService", win::ERROR_INVALID_PARAMETER);
    }
    if (config.displayName.empty()) {
        config.displayName = config.name;
    }
    if (auto st = manager.Connect(SC_MANAGER_CREATE_SERVICE); !st) {
        return Fail(out, "OpenSCManager", st.error);
    }
    if (auto st = manager.CreateService(config); !st) {
        return Fail(out, "CreateService", st.error);
    }
    out << "[SC] CreateService SUCCESS\n";
    return 0;
}

int Config(const std::vector<std::string>& args, platform::ServiceControlManager& manager,
           std::ostream& out) {
    const auto options = args.size() >= 2 ? ParseOptions(args, 2) : std::nullopt;
    if (!options || options->size() != 1 || options->count("start=") != 1) {
        Usage(out);
        return 1;
    }
    const auto start = ParseStartType(options->at("start="));
    if (!start) {
        return Fail(out, "ChangeServiceConfig", win::ERROR_INVALID_PARAMETER);
    }
    const std::wstring name = W(args[1]);
    if (auto st = manager.OpenService(name, SERVICE_ALL_ACCESS); !st) {
        return Fail(out, "OpenService", st.error);
    }
    if (auto st = manager.ChangeStartType(name, *start); !st) {
        return Fail(out, "ChangeServiceConfig", st.error);
    }
    out << "[SC] ChangeServiceConfig SUCCESS\n";
    return 0;
}

int Delete(const std::wstring& name, platform::ServiceControlManager& manager, std::ostream& out) {
    if (auto st = manager.OpenService(name, SERVICE_ALL_ACCESS); !st) {
        return Fail(out, "OpenService", st.error);
    }
    if (auto st = manager.DeleteService(name); !st) {
        return Fail(out, "DeleteService", st.error);
    }
    out << "[SC] DeleteService SUCCESS\n";
    return 0;
}

}  // namespace

std::string StateName(DWORD state) {
    switch (state) {
        case SERVICE_STOPPED:
            return "STOPPED";
        case SERVICE_START_PENDING:
            return "START_PENDING";
        case SERVICE_STOP_PENDING:
            return "STOP_PENDING";
        case SERVICE_RUNNING:
            return "RUNNING";
        case SERVICE_CONTINUE_PENDING:
            return "CONTINUE_PENDING";
        case SERVICE_PAUSE_PENDING:
            return "PAUSE_PENDING";
        case SERVICE_PAUSED:
            return "PAUSED";
        default:
            return "UNKNOWN";
    }
}

std::string TypeText(DWORD type) {
    char number[16];
    std::snprintf(number, sizeof(number), "%x", type);
    std::string text = std::string(number) + "  ";
    const DWORD base = type & ~SERVICE_INTERACTIVE_PROCESS;
    if (base == SERVICE_WIN32_OWN_PROCESS) {
        text += "WIN32_OWN_PROCESS";
    } else if (base == SERVICE_WIN32_SHARE_PROCESS) {
        text += "WIN32_SHARE_PROCESS";
    } else if (base == 1) {
        text += "KERNEL_DRIVER";
    } else if (base == 2) {
        text += "FILE_SYSTEM_DRIVER";
    } else {
        text += "WIN32";
    }
    if (type & SERVICE_INTERACTIVE_PROCESS) {
        text += "  (interactive)";
    }
    return text;
}

std::string FormatStatus(const std::wstring& name, const SERVICE_STATUS& s) {
    std::string out = "\nSERVICE_NAME: " + DE::UnicodeToANSI(name) + "\n";
    out += Field("TYPE", TypeText(s.dwServiceType));
    out += Field("STATE", std::to_string(s.dwCurrentState) + "  " + StateName(s.dwCurrentState));
    out += std::string(32, ' ') + "(" +
           ((s.dwControlsAccepted & SERVICE_ACCEPT_STOP) ? "STOPPABLE" : "NOT_STOPPABLE") + ", " +
           ((s.dwControlsAccepted & SERVICE_ACCEPT_PAUSE_CONTINUE) ? "PAUSABLE" : "NOT_PAUSABLE") + ", " +
           ((s.dwControlsAccepted & SERVICE_ACCEPT_SHUTDOWN) ? "ACCEPTS_SHUTDOWN" : "IGNORES_SHUTDOWN") +
           ")\n";
    out += Field("WIN32_EXIT_CODE", std::to_string(s.dwWin32ExitCode) + "  (" + Hex(s.dwWin32ExitCode) + ")");
    out += Field("SERVICE_EXIT_CODE", std::to_string(s.dwServiceSpecificExitCode) + "  (" +
                                          Hex(s.dwServiceSpecificExitCode) + ")");
    out += Field("CHECKPOINT", Hex(s.dwCheckPoint));
    out += Field("WAIT_HINT", Hex(s.dwWaitHint));
    return out;
}

std::optional<DWORD> ParseNumber(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    DWORD value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (ec != std::errc() || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<DWORD> ParsePowerEventType(const std::string& text) {
    static const std::map<std::string, DWORD> names = {
        {"suspend", PBT_APMSUSPEND},
        {"resumesuspend", PBT_APMRESUMESUSPEND},
        {"resumeautomatic", PBT_APMRESUMEAUTOMATIC},
    };
    if (const auto it = names.find(ToLowerAscii(text)); it != names.end()) {
        return it->second;
    }
    return ParseNumber(text);
}

std::optional<DWORD> ParseSessionEventType(const std::string& text) {
    static const std::map<std::string, DWORD> names = {
        {"console_connect", WTS_CONSOLE_CONNECT},
        {"console_disconnect", WTS_CONSOLE_DISCONNECT},
        {"remote_connect", WTS_REMOTE_CONNECT},
        {"remote_disconnect", WTS_REMOTE_DISCONNECT},
        {"logon", WTS_SESSION_LOGON},
        {"logoff", WTS_SESSION_LOGOFF},
        {"lock", WTS_SESSION_LOCK},
        {"unlock", WTS_SESSION_UNLOCK},
    };
    if (const auto it = names.find(ToLowerAscii(text)); it != names.end()) {
        return it->second;
    }
    return ParseNumber(text);
}

int Run(const std::vector<std::string>& args, platform::ServiceControlManager& manager, std::ostream& out) {
    if (args.empty()) {
        Usage(out);
        return 1;
    }
    const std::string verb = ToLowerAscii(args[0]);
    if (verb == "create") {
        return Create(args, manager, out);
    }
    if (verb == "config") {
        return Config(args, manager, out);
    }
    if (verb == "control") {
        return ControlVerb(args, manager, out);
    }
    if (args.size() != 2) {
        Usage(out);
        return 1;
    }
    const std::wstring name = W(args[1]);
    if (verb == "query") {
        return Query(name, manager, out);
    }
    if (verb == "qc") {
        return QueryConfig(name, manager, out);
    }
    if (verb == "start") {
        return Start(name, manager, out);
    }
    if (verb == "stop") {
        return Control(name, SERVICE_CONTROL_STOP, 0, 0, manager, out);
    }
    if (verb == "delete") {
        return Delete(name, manager, out);
    }
    Usage(out);
    return 1;
}

}  // namespace qlb::sc
