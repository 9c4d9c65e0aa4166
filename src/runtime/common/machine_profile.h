#pragma once
// The machine profile: config/machine.json beside the executable says where machine-wide state lives,
// so that one machine can hold several installations and a test can hold a whole machine in a
// temporary directory. Every key is optional; a missing file means all defaults.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qlb {

struct Capabilities {
    std::set<std::string> plugins;                               // "BigData", "DumpReport", "QDS", ...
    std::map<std::string, std::vector<std::string>> properties;  // "ZVLoginGuide": ["china"]
};

struct FirmwareProfile {
    bool logoSupported = false;
    std::filesystem::path logoStore;
    std::vector<std::filesystem::path> defaultLogos;
};

struct IpcAllow {
    std::vector<std::string> users;
    std::vector<std::string> groups;
};

struct RegionProfile {
    std::string serviceCountry;
    std::string saleCountry;
    std::string language;
};

struct MachineProfile {
    std::filesystem::path registry = "/var/lib/qlb/registry.db";
    std::filesystem::path appData = "/var/lib/qlb/appdata/";
    std::filesystem::path logDir = "/var/log/qlb/";
    std::filesystem::path runDir = "/run/qlb/";
    std::string serviceManager = "auto";  // "embedded", "systemd" or "auto"
    Capabilities capabilities;
    std::string appVersion = "1.0.0.0";
    std::filesystem::path systemRoot = "/";
    std::filesystem::path dmiDir = "/sys/class/dmi/id/";
    std::filesystem::path watchdogDevice = "/dev/WDT0001";
    std::optional<FirmwareProfile> firmware;  // absent: the boot logo is not supported
    std::string power = "logind";             // "logind" or "record"
    // Routing table: service name -> key -> "https://host:port".
    std::map<std::string, std::map<std::string, std::string>> services;
    std::optional<std::filesystem::path> caFile;
    std::vector<std::filesystem::path> trustedKeys;
    IpcAllow ipcAllow{{"root"}, {"qlb"}};
    std::map<std::uint32_t, std::string> sessions;  // session id -> user name
    std::optional<std::uint32_t> activeSession;
    RegionProfile region;
    bool retail = false;

    // The file this profile came from, empty for the built-in defaults.
    std::filesystem::path source;

    // The process-wide profile, read once from ProgramDir()/config/machine.json. A malformed file gives
    // the defaults; LoadError() then says what was wrong.
    static const MachineProfile& Current();
    static const std::string& LoadError();
    // Replaces the process-wide profile (tools given another profile, tests).
    static void SetCurrent(MachineProfile profile);
};

struct ProfileLoadResult {
    MachineProfile profile;  // the defaults when error is set
    std::string error;       // names the file and the key; empty on success
    bool ok() const noexcept { return error.empty(); }
};

// Reads a profile. Relative paths in it are taken against the directory that holds config/, i.e. the
// program directory. A missing file is no error.
ProfileLoadResult LoadMachineProfile(const std::filesystem::path& file);
ProfileLoadResult ParseMachineProfile(const std::string& json, const std::filesystem::path& file,
                                      const std::filesystem::path& baseDir);

std::filesystem::path DefaultProfilePath();

}  // namespace qlb
