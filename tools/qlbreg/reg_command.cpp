#include "reg_command.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <istream>
#include <optional>
#include <ostream>

#include "runtime/common/strings.h"
#include "runtime/registry/registry_path.h"

namespace qlb::regtool {
namespace {

using registry::Hive;
using registry::RegistryStore;
using registry::RegValue;

constexpr const char* kNotFound = "ERROR: The system was unable to find the specified registry key or value.";
constexpr const char* kSuccess = "The operation completed successfully.";
constexpr const char* kCancelled = "The operation was cancelled by the user.";

enum class Verb { Query, Add, Delete };

const char* VerbName(Verb verb) {
    switch (verb) {
        case Verb::Query:
            return "QUERY";
        case Verb::Add:
            return "ADD";
        case Verb::Delete:
            return "DELETE";
    }
    return "";
}

// A failure that ends the command with its message on stderr and status 1.
struct Failure {
    std::string message;
};

struct Command {
    Verb verb = Verb::Query;
    Hive hive = Hive::LocalMachine;
    std::wstring path;                      // below the hive, without leading or trailing '\'
    std::string fullName;                   // as printed: long hive name and the path as given
    std::optional<std::wstring> valueName;  // /v NAME, or L"" for /ve
    bool allValues = false;                 // /va
    bool recurse = false;                   // /s
    bool force = false;                     // /f
    std::optional<std::string> type;        // /t
    std::optional<std::string> data;        // /d
    std::optional<std::string> separator;   // /s of add
};

std::string Upper(std::string text) {
    for (auto& c : text) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return text;
}

Failure SyntaxError(Verb verb, const std::string& detail = {}) {
    return Failure{"ERROR: Invalid syntax." + (detail.empty() ? "" : " " + detail) + "\nType \"REG " +
                   VerbName(verb) + " /?\" for usage."};
}

bool IsSwitch(const std::string& word) {
    return word.size() >= 2 && (word[0] == '/' || word[0] == '-');
}

// Splits "HKLM\Software\X" into its hive and path; the short and long hive names are both taken.
std::optional<Failure> ParseKey(const std::string& key, Command& command) {
    const std::wstring wide = DE::ANSIToUnicode(key);
    const auto slash = wide.find(L'\\');
    const auto hive = registry::HiveFromName(wide.substr(0, slash));
    if (!hive) {
        return Failure{std::string("ERROR: Invalid key name.\nType \"REG ") + VerbName(command.verb) +
                       " /?\" for usage."};
    }
    command.hive = *hive;
    std::wstring path = slash == std::wstring::npos ? std::wstring() : wide.substr(slash + 1);
    while (!path.empty() && path.back() == L'\\') {
        path.pop_back();
    }
    command.path = path;
    command.fullName = DE::UnicodeToANSI(registry::HiveLongName(*hive));
    if (!path.empty()) {
        command.fullName += "\\" + DE::UnicodeToANSI(path);
    }
    return std::nullopt;
}

std::optional<Failure> ParseCommand(const std::vector<std::string>& args, Command& command) {
    const Verb verb = command.verb;
    if (args.size() < 2 || IsSwitch(args[1])) {
        return SyntaxError(verb);
    }
    if (auto bad = ParseKey(args[1], command)) {
        return bad;
    }
    const auto takeArgument = [&](std::size_t& i, std::optional<std::string>& slot) -> bool {
        if (slot || i + 1 >= args.size()) {
            return false;
        }
        slot = args[++i];
        return true;
    };
    for (std::size_t i = 2; i < args.size(); ++i) {
        const std::string word = Upper(args[i]);
        if (!IsSwitch(word)) {
            return SyntaxError(verb);
        }
        const std::string name = word.substr(1);
        if (name == "REG:32" || name == "REG:64") {
            continue;  // one view of the registry here
        }
        if (name == "V") {
            std::optional<std::string> value;
            if (command.valueName || command.allValues || !takeArgument(i, value)) {
                return SyntaxError(verb);
            }
            command.valueName = DE::ANSIToUnicode(*value);
        } else if (name == "VE") {
            if (command.valueName || command.allValues) {
                return SyntaxError(verb);
            }
            command.valueName = std::wstring();
        } else if (name == "VA" && verb == Verb::Delete) {
            if (command.valueName || command.allValues) {
                return SyntaxError(verb);
            }
            command.allValues = true;
        } else if (name == "S" && verb == Verb::Query) {
            if (command.recurse) {
                return SyntaxError(verb);
            }
            command.recurse = true;
        } else if (name == "S" && verb == Verb::Add) {
            if (!takeArgument(i, command.separator) || command.separator->size() != 1) {
                return SyntaxError(verb);
            }
        } else if (name == "F" && verb != Verb::Query) {
            if (command.force) {
                return SyntaxError(verb);
            }
            command.force = true;
        } else if (name == "T" && verb == Verb::Add) {
            if (!takeArgument(i, command.type)) {
                return SyntaxError(verb);
            }
        } else if (name == "D" && verb == Verb::Add) {
            if (!takeArgument(i, command.data)) {
                return SyntaxError(verb);
            }
        } else {
            return SyntaxError(verb);
        }
    }
    return std::nullopt;
}

std::string TypeName(DWORD type) {
    switch (type) {
        case REG_SZ:
            return "REG_SZ";
        case registry::kRegExpandSz:
            return "REG_EXPAND_SZ";
        case registry::kRegBinary:
            return "REG_BINARY";
        case REG_DWORD:
            return "REG_DWORD";
        case registry::kRegMultiSz:
            return "REG_MULTI_SZ";
        case registry::kRegQword:
            return "REG_QWORD";
        case registry::kRegNone:
            return "REG_NONE";
        default:
            return "REG_UNKNOWN";
    }
}

std::string HexBytes(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    char pair[3];
    for (const auto b : bytes) {
        std::snprintf(pair, sizeof(pair), "%02X", b);
        text += pair;
    }
    return text;
}

std::string DataText(const RegValue& value) {
    char number[24];
    switch (value.type) {
        case REG_SZ:
        case registry::kRegExpandSz:
            return DE::UnicodeToANSI(value.text);
        case REG_DWORD:
        case registry::kRegQword:
            std::snprintf(number, sizeof(number), "0x%" PRIx64, value.number);
            return number;
        case registry::kRegMultiSz: {
            // Items are shown joined by a literal "\0".
            std::wstring items = value.text;
            while (!items.empty() && items.back() == L'\0') {
                items.pop_back();
            }
            std::string text;
            std::size_t start = 0;
            while (true) {
                const auto end = items.find(L'\0', start);
                text += DE::UnicodeToANSI(items.substr(start, end == std::wstring::npos ? end : end - start));
                if (end == std::wstring::npos) {
                    break;
                }
                text += "\\0";
                start = end + 1;
            }
            return text;
        }
        default:
            return HexBytes(value.bytes);
    }
}

void PrintValue(std::ostream& out, const RegValue& value) {
    const std::string name = value.name.empty() ? "(Default)" : DE::UnicodeToANSI(value.name);
    out << "    " << name << "    " << TypeName(value.type) << "    " << DataText(value) << "\n";
}

HKEY Root(const Command& command) {
    return registry::RootOfHive(command.hive);
}

std::wstring Join(const std::wstring& path, const std::wstring& name) {
    return path.empty() ? name : path + L"\\" + name;
}

// Asks a question that ends in (Yes/No)?; anything else asks again, and end of input is No.
bool Confirm(std::istream& in, std::ostream& out, const std::string& question) {
    while (true) {
        out << question << " " << std::flush;
        std::string answer;
        if (!std::getline(in, answer)) {
            out << "\n";
            return false;
        }
        answer = Upper(DE::TrimSP(answer));
        if (answer == "Y" || answer == "YES") {
            return true;
        }
        if (answer == "N" || answer == "NO") {
            return false;
        }
    }
}

int Fail(std::ostream& err, std::uint32_t error) {
    if (error == win::ERROR_FILE_NOT_FOUND) {
        err << kNotFound << "\n";
    } else {
        err << "ERROR: " << win::MessageText(error) << "\n";
    }
    return 1;
}

// Lists one key and, with /s, everything below it, in the order the registry gives.
int QueryTree(RegistryStore& store, const Command& command, std::ostream& out, std::ostream& err) {
    std::size_t matches = 0;
    struct Pending {
        std::wstring path;
        std::string fullName;
    };
    std::vector<Pending> stack{{command.path, command.fullName}};
    bool first = true;
    while (!stack.empty()) {
        Pending key = std::move(stack.back());
        stack.pop_back();
        auto values = store.EnumValues(Root(command), key.path);
        auto subkeys = store.EnumSubkeys(Root(command), key.path);
        if (!values || !subkeys) {
            if (first) {
                return Fail(err, values ? subkeys.error : values.error);
            }
            continue;  // deleted while we walked
        }
        first = false;
        if (command.valueName) {
            for (const auto& value : values.value) {
                if (registry::FoldName(value.name) == registry::FoldName(*command.valueName)) {
                    out << "\n" << key.fullName << "\n";
                    PrintValue(out, value);
                    ++matches;
                }
            }
        } else {
            out << "\n" << key.fullName << "\n";
            for (const auto& value : values.value) {
                PrintValue(out, value);
            }
        }
        for (auto it = subkeys.value.rbegin(); it != subkeys.value.rend(); ++it) {
            stack.push_back({Join(key.path, *it), key.fullName + "\\" + DE::UnicodeToANSI(*it)});
        }
    }
    if (command.valueName) {
        out << "\nEnd of search: " << matches << " match(es) found.\n";
        return matches > 0 ? 0 : 1;
    }
    return 0;
}

int Query(RegistryStore& store, const Command& command, std::ostream& out, std::ostream& err) {
    if (command.recurse) {
        return QueryTree(store, command, out, err);
    }
    if (command.valueName) {
        auto value = store.GetValue(Root(command), command.path, *command.valueName);
        if (!value && value.error == win::ERROR_FILE_NOT_FOUND && command.valueName->empty() &&
            store.OpenKey(Root(command), command.path)) {
            // The unnamed value of an existing key reads as an empty string that was never set.
            out << "\n" << command.fullName << "\n    (Default)    REG_SZ    (value not set)\n\n";
            return 0;
        }
        if (!value) {
            return Fail(err, value.error);
        }
        out << "\n" << command.fullName << "\n";
        PrintValue(out, value.value);
        out << "\n";
        return 0;
    }
    auto values = store.EnumValues(Root(command), command.path);
    if (!values) {
        return Fail(err, values.error);
    }
    auto subkeys = store.EnumSubkeys(Root(command), command.path);
    if (!subkeys) {
        return Fail(err, subkeys.error);
    }
    out << "\n";
    if (!values.value.empty()) {
        out << command.fullName << "\n";
        for (const auto& value : values.value) {
            PrintValue(out, value);
        }
        out << "\n";
    }
    for (const auto& name : subkeys.value) {
        out << command.fullName << "\\" << DE::UnicodeToANSI(name) << "\n";
    }
    return 0;
}

// The value that /t and /d describe; nothing if the data does not fit the type.
std::optional<RegValue> BuildValue(const Command& command, std::optional<Failure>& failure) {
    const std::string type = command.type ? Upper(*command.type) : "REG_SZ";
    const std::string data = command.data.value_or("");
    const std::wstring name = command.valueName.value_or(L"");
    if (type == "REG_SZ" || type == "REG_EXPAND_SZ") {
        return RegValue::String(name, DE::ANSIToUnicode(data),
                                type == "REG_SZ" ? REG_SZ : registry::kRegExpandSz);
    }
    if (type == "REG_MULTI_SZ") {
        const std::string separator = command.separator.value_or("\\0");
        std::wstring items;
        std::size_t start = 0;
        while (!data.empty()) {
            const auto end = data.find(separator, start);
            items += DE::ANSIToUnicode(data.substr(start, end == std::string::npos ? end : end - start));
            items.push_back(L'\0');
            if (end == std::string::npos) {
                break;
            }
            start = end + separator.size();
        }
        return RegValue::String(name, items, registry::kRegMultiSz);
    }
    if (type == "REG_DWORD" || type == "REG_QWORD") {
        const bool dword = type == "REG_DWORD";
        std::uint64_t number = 0;
        bool valid = true;
        if (!data.empty()) {
            const bool hex = data.size() > 2 && data[0] == '0' && (data[1] == 'x' || data[1] == 'X');
            const std::string digits = hex ? data.substr(2) : data;
            valid = !digits.empty();
            for (const char c : digits) {
                const int digit = (c >= '0' && c <= '9')          ? c - '0'
                                  : hex && (c >= 'a' && c <= 'f') ? c - 'a' + 10
                                  : hex && (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                                                  : -1;
                const std::uint64_t base = hex ? 16 : 10;
                const std::uint64_t limit = dword ? 0xFFFFFFFFULL : UINT64_MAX;
                if (digit < 0 || number > (limit - static_cast<std::uint64_t>(digit)) / base) {
                    valid = false;
                    break;
                }
                number = number * base + static_cast<std::uint64_t>(digit);
            }
        }
        if (!valid) {
            failure = SyntaxError(Verb::Add, "Specify valid numeric value for '/d'.");
            return std::nullopt;
        }
        return dword ? RegValue::Dword(name, static_cast<DWORD>(number)) : RegValue::Qword(name, number);
    }
    if (type == "REG_BINARY" || type == "REG_NONE") {
        std::vector<std::uint8_t> bytes;
        bool valid = data.size() % 2 == 0;
        for (std::size_t i = 0; valid && i < data.size(); i += 2) {
            unsigned int byte = 0;
            valid = std::isxdigit(static_cast<unsigned char>(data[i])) &&
                    std::isxdigit(static_cast<unsigned char>(data[i + 1])) &&
                    std::sscanf(data.substr(i, 2).c_str(), "%2x", &byte) == 1;
            bytes.push_back(static_cast<std::uint8_t>(byte));
        }
        if (!valid) {
            failure = SyntaxError(Verb::Add, "Specify valid hexadecimal value for '/d'.");
            return std::nullopt;
        }
        return RegValue::Binary(name, bytes,
                                type == "REG_BINARY" ? registry::kRegBinary : registry::kRegNone);
    }
    failure = SyntaxError(Verb::Add);
    return std::nullopt;
}

// value is what /t and /d describe, or nothing when only the key is to be made.
int Add(RegistryStore& store, const Command& command, const std::optional<RegValue>& value, std::istream& in,
        std::ostream& out, std::ostream& err) {
    if (!value) {
        if (auto created = store.CreateKey(Root(command), command.path); !created) {
            return Fail(err, created.error);
        }
        out << kSuccess << "\n";
        return 0;
    }
    if (!command.force) {
        auto existing = store.GetValue(Root(command), command.path, value->name);
        if (existing &&
            !Confirm(in, out,
                     "Value " + DE::UnicodeToANSI(existing.value.name) + " exists, overwrite(Yes/No)?")) {
            out << kCancelled << "\n";
            return 0;
        }
    }
    if (auto written = store.SetValue(Root(command), command.path, *value, true); !written) {
        return Fail(err, written.error);
    }
    out << kSuccess << "\n";
    return 0;
}

int Delete(RegistryStore& store, const Command& command, std::istream& in, std::ostream& out,
           std::ostream& err) {
    if (auto opened = store.OpenKey(Root(command), command.path); !opened) {
        return Fail(err, opened.error);
    }
    if (command.valueName) {
        auto existing = store.GetValue(Root(command), command.path, *command.valueName);
        if (!existing) {
            return Fail(err, existing.error);
        }
        const std::string shown =
            command.valueName->empty() ? "(Default)" : DE::UnicodeToANSI(existing.value.name);
        if (!command.force && !Confirm(in, out, "Delete the registry value " + shown + " (Yes/No)?")) {
            out << kCancelled << "\n";
            return 0;
        }
        if (auto deleted = store.DeleteValue(Root(command), command.path, *command.valueName); !deleted) {
            return Fail(err, deleted.error);
        }
    } else if (command.allValues) {
        if (!command.force &&
            !Confirm(in, out,
                     "Delete all values under the registry key " + command.fullName + " (Yes/No)?")) {
            out << kCancelled << "\n";
            return 0;
        }
        auto values = store.EnumValues(Root(command), command.path);
        if (!values) {
            return Fail(err, values.error);
        }
        for (const auto& value : values.value) {
            if (auto deleted = store.DeleteValue(Root(command), command.path, value.name);
                !deleted && deleted.error != win::ERROR_FILE_NOT_FOUND) {
                return Fail(err, deleted.error);
            }
        }
    } else {
        if (command.path.empty()) {
            err << "ERROR: Invalid key name.\nType \"REG DELETE /?\" for usage.\n";
            return 1;
        }
        if (!command.force &&
            !Confirm(in, out, "Permanently delete the registry key " + command.fullName + " (Yes/No)?")) {
            out << kCancelled << "\n";
            return 0;
        }
        if (auto deleted = store.DeleteTree(Root(command), command.path); !deleted) {
            return Fail(err, deleted.error);
        }
    }
    out << kSuccess << "\n";
    return 0;
}

void PrintUsage(std::ostream& out, std::optional<Verb> verb) {
    if (!verb) {
        out << "\nREG Operation [Parameter List]\n\n  Operation  [ QUERY | ADD | DELETE ]\n\n"
               "Return Code: (Except for REG COMPARE)\n\n  0 - Successful\n  1 - Failed\n\n"
               "For help on a specific operation type:\n\n  REG Operation /?\n";
        return;
    }
    switch (*verb) {
        case Verb::Query:
            out << "\nREG QUERY KeyName [/v [ValueName] | /ve] [/s]\n\n"
                   "  KeyName    ROOTKEY\\SubKey\n"
                   "             ROOTKEY  [ HKLM | HKCU | HKCR | HKU | HKCC ]\n"
                   "  /v         Queries for a specific registry key value.\n"
                   "  /ve        Queries for the default value or empty value name (Default).\n"
                   "  /s         Queries all subkeys and values recursively (like dir /s).\n";
            break;
        case Verb::Add:
            out << "\nREG ADD KeyName [/v ValueName | /ve] [/t Type] [/s Separator] [/d Data] [/f]\n\n"
                   "  KeyName    ROOTKEY\\SubKey\n"
                   "  /v         The value name, under the selected Key, to add.\n"
                   "  /ve        adds an empty value name (Default) for the key.\n"
                   "  /t         RegKey data types\n"
                   "             [ REG_SZ    | REG_MULTI_SZ | REG_EXPAND_SZ |\n"
                   "               REG_DWORD | REG_QWORD    | REG_BINARY    | REG_NONE ]\n"
                   "             If omitted, REG_SZ is assumed.\n"
                   "  /s         Specify one character that you use as the separator in your data\n"
                   "             string for REG_MULTI_SZ. If omitted, use \"\\0\" as the separator.\n"
                   "  /d         The data to assign to the registry ValueName being added.\n"
                   "  /f         Force overwriting the existing registry entry without prompt.\n";
            break;
        case Verb::Delete:
            out << "\nREG DELETE KeyName [/v ValueName | /ve | /va] [/f]\n\n"
                   "  KeyName    ROOTKEY\\SubKey\n"
                   "  ValueName  The value name, under the selected Key, to delete.\n"
                   "             When omitted, all subkeys and values under the Key are deleted.\n"
                   "  /ve        delete the value of empty value name (Default).\n"
                   "  /va        delete all values under this key.\n"
                   "  /f         Forces the deletion without prompt.\n";
            break;
    }
}

}  // namespace

int RunRegCommand(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                  std::ostream& err, const StoreOpener& openStore) {
    if (args.empty()) {
        err << "ERROR: Invalid syntax.\nType \"REG /?\" for usage.\n";
        return 1;
    }
    const std::string verbWord = Upper(args[0]);
    if (verbWord == "/?" || verbWord == "-?") {
        PrintUsage(out, std::nullopt);
        return 0;
    }
    Command command;
    if (verbWord == "QUERY") {
        command.verb = Verb::Query;
    } else if (verbWord == "ADD") {
        command.verb = Verb::Add;
    } else if (verbWord == "DELETE") {
        command.verb = Verb::Delete;
    } else {
        err << "ERROR: Invalid syntax.\nType \"REG /?\" for usage.\n";
        return 1;
    }
    if (args.size() == 2 && (args[1] == "/?" || args[1] == "-?")) {
        PrintUsage(out, command.verb);
        return 0;
    }
    if (auto failure = ParseCommand(args, command)) {
        err << failure->message << "\n";
        return 1;
    }
    // The data of add is checked before the store is touched.
    std::optional<RegValue> value;
    if (command.verb == Verb::Add && (command.valueName || command.type || command.data)) {
        std::optional<Failure> failure;
        value = BuildValue(command, failure);
        if (!value) {
            err << failure->message << "\n";
            return 1;
        }
    }
    auto store = openStore();
    if (!store) {
        err << "ERROR: " << win::MessageText(store.error) << "\n";
        return 1;
    }
    switch (command.verb) {
        case Verb::Query:
            return Query(*store.value, command, out, err);
        case Verb::Add:
            return Add(*store.value, command, value, in, out, err);
        case Verb::Delete:
            return Delete(*store.value, command, in, out, err);
    }
    return 1;
}

}  // namespace qlb::regtool
