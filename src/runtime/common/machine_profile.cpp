#include "runtime/common/machine_profile.h"

#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "runtime/common/program_dir.h"

namespace qlb {

namespace {

using nlohmann::json;

// A malformed key: carries the key's dotted name so the message can name it.
struct KeyError : std::runtime_error {
    KeyError(const std::string& key, const std::string& what)
        : std::runtime_error("key \"" + key + "\": " + what) {}
};

const char* TypeName(const json& v) {
    return v.type_name();
}

std::string ReadString(const json& v, const std::string& key) {
    if (!v.is_string()) {
        throw KeyError(key, std::string("expected a string, found ") + TypeName(v));
    }
    return v.get<std::string>();
}

bool ReadBool(const json& v, const std::string& key) {
    if (!v.is_boolean()) {
        throw KeyError(key, std::string("expected true or false, found ") + TypeName(v));
    }
    return v.get<bool>();
}

std::uint32_t ReadUInt32(const json& v, const std::string& key) {
    if (v.is_number_unsigned() && v.get<std::uint64_t>() <= 0xFFFFFFFFULL) {
        return static_cast<std::uint32_t>(v.get<std::uint64_t>());
    }
    if (v.is_string()) {
        const auto text = v.get<std::string>();
        try {
            size_t used = 0;
            const unsigned long long n = std::stoull(text, &used, 10);
            if (used == text.size() && n <= 0xFFFFFFFFULL && !text.empty() && text[0] != '-') {
                return static_cast<std::uint32_t>(n);
            }
        } catch (const std::exception&) {
        }
    }
    throw KeyError(key, "expected a session id (an unsigned 32-bit number)");
}

void RequireObject(const json& v, const std::string& key) {
    if (!v.is_object()) {
        throw KeyError(key, std::string("expected an object, found ") + TypeName(v));
    }
}

std::vector<std::string> ReadStringList(const json& v, const std::string& key) {
    if (!v.is_array()) {
        throw KeyError(key, std::string("expected an array of strings, found ") + TypeName(v));
    }
    std::vector<std::string> out;
    for (size_t i = 0; i < v.size(); ++i) {
        out.push_back(ReadString(v[i], key + "[" + std::to_string(i) + "]"));
    }
    return out;
}

std::filesystem::path ReadPath(const json& v, const std::string& key, const std::filesystem::path& base) {
    std::string text = ReadString(v, key);
    if (text.empty()) {
        throw KeyError(key, "expected a path, found an empty string");
    }
    std::filesystem::path p(text);
    return p.is_absolute() ? p : base / p;
}

// Directories keep a trailing separator, as the defaults have it, so that "logDir" + name works.
std::filesystem::path ReadDir(const json& v, const std::string& key, const std::filesystem::path& base) {
    auto p = ReadPath(v, key, base);
    if (!p.has_filename()) {
        return p;
    }
    return p / "";
}

void Apply(const json& doc, const std::filesystem::path& base, MachineProfile& p) {
    if (!doc.is_object()) {
        throw std::runtime_error(std::string("the profile must be a JSON object, found ") + TypeName(doc));
    }
    for (const auto& [key, v] : doc.items()) {
        if (key == "registry") {
            p.registry = ReadPath(v, key, base);
        } else if (key == "appData") {
            p.appData = ReadDir(v, key, base);
        } else if (key == "logDir") {
            p.logDir = ReadDir(v, key, base);
        } else if (key == "runDir") {
            p.runDir = ReadDir(v, key, base);
        } else if (key == "serviceManager") {
            p.serviceManager = ReadString(v, key);
            if (p.serviceManager != "embedded" && p.serviceManager != "systemd" &&
                p.serviceManager != "auto") {
                throw KeyError(key, "expected \"embedded\", \"systemd\" or \"auto\", found \"" +
                                        p.serviceManager + "\"");
            }
        } else if (key == "capabilities") {
            RequireObject(v, key);
            for (const auto& [ck, cv] : v.items()) {
                const std::string name = key + "." + ck;
                if (ck == "plugins") {
                    for (auto& s : ReadStringList(cv, name))
                        p.capabilities.plugins.insert(s);
                } else if (ck == "properties") {
                    RequireObject(cv, name);
                    for (const auto& [pk, pv] : cv.items()) {
                        p.capabilities.properties[pk] = ReadStringList(pv, name + "." + pk);
                    }
                }
            }
        } else if (key == "appVersion") {
            p.appVersion = ReadString(v, key);
        } else if (key == "systemRoot") {
            p.systemRoot = ReadDir(v, key, base);
        } else if (key == "dmiDir") {
            p.dmiDir = ReadDir(v, key, base);
        } else if (key == "watchdogDevice") {
            p.watchdogDevice = ReadPath(v, key, base);
        } else if (key == "firmware") {
            RequireObject(v, key);
            FirmwareProfile fw;
            for (const auto& [fk, fv] : v.items()) {
                const std::string name = key + "." + fk;
                if (fk == "logoSupported") {
                    fw.logoSupported = ReadBool(fv, name);
                } else if (fk == "logoStore") {
                    fw.logoStore = ReadPath(fv, name, base);
                } else if (fk == "defaultLogos") {
                    for (auto& s : ReadStringList(fv, name)) {
                        std::filesystem::path lp(s);
                        fw.defaultLogos.push_back(lp.is_absolute() ? lp : base / lp);
                    }
                }
            }
            p.firmware = std::move(fw);
        } else if (key == "power") {
            p.power = ReadString(v, key);
            if (p.power != "logind" && p.power != "record") {
                throw KeyError(key, "expected \"logind\" or \"record\", found \"" + p.power + "\"");
            }
        } else if (key == "services") {
            RequireObject(v, key);
            for (const auto& [sk, sv] : v.items()) {
                RequireObject(sv, key + "." + sk);
                for (const auto& [ek, ev] : sv.items()) {
                    p.services[sk][ek] = ReadString(ev, key + "." + sk + "." + ek);
                }
            }
        } else if (key == "caFile") {
            p.caFile = ReadPath(v, key, base);
        } else if (key == "trustedKeys") {
            for (auto& s : ReadStringList(v, key)) {
                std::filesystem::path kp(s);
                p.trustedKeys.push_back(kp.is_absolute() ? kp : base / kp);
            }
        } else if (key == "ipcAllow") {
            RequireObject(v, key);
            IpcAllow allow;
            if (v.contains("users"))
                allow.users = ReadStringList(v["users"], key + ".users");
            if (v.contains("groups"))
                allow.groups = ReadStringList(v["groups"], key + ".groups");
            p.ipcAllow = std::move(allow);
        } else if (key == "sessions") {
            RequireObject(v, key);
            for (const auto& [sk, sv] : v.items()) {
                const std::uint32_t id = ReadUInt32(json(sk), key + "." + sk);
                p.sessions[id] = ReadString(sv, key + "." + sk);
            }
        } else if (key == "activeSession") {
            p.activeSession = ReadUInt32(v, key);
        } else if (key == "region") {
            RequireObject(v, key);
            for (const auto& [rk, rv] : v.items()) {
                const std::string name = key + "." + rk;
                if (rk == "serviceCountry") {
                    p.region.serviceCountry = ReadString(rv, name);
                } else if (rk == "saleCountry") {
                    p.region.saleCountry = ReadString(rv, name);
                } else if (rk == "language") {
                    p.region.language = ReadString(rv, name);
                }
            }
        } else if (key == "retail") {
            p.retail = ReadBool(v, key);
        }
        // Other keys belong to newer or older installations and are left alone.
    }
}

struct CurrentProfile {
    std::mutex mutex;
    bool loaded = false;
    MachineProfile profile;
    std::string error;
};

CurrentProfile& Holder() {
    static CurrentProfile holder;
    return holder;
}

CurrentProfile& LoadedHolder() {
    auto& h = Holder();
    std::lock_guard lock(h.mutex);
    if (!h.loaded) {
        auto result = LoadMachineProfile(DefaultProfilePath());
        h.profile = std::move(result.profile);
        h.error = std::move(result.error);
        h.loaded = true;
    }
    return h;
}

}  // namespace

ProfileLoadResult ParseMachineProfile(const std::string& text, const std::filesystem::path& file,
                                      const std::filesystem::path& baseDir) {
    ProfileLoadResult result;
    MachineProfile parsed;
    parsed.source = file;
    try {
        const json doc = json::parse(text);
        Apply(doc, baseDir, parsed);
        result.profile = std::move(parsed);
    } catch (const json::parse_error& e) {
        result.error = file.string() + ": not valid JSON: " + e.what();
    } catch (const std::exception& e) {
        result.error = file.string() + ": " + e.what();
    }
    return result;
}

ProfileLoadResult LoadMachineProfile(const std::filesystem::path& file) {
    const auto baseDir = file.parent_path().parent_path();
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::error_code ec;
        if (std::filesystem::exists(file, ec)) {
            ProfileLoadResult result;
            result.error = file.string() + ": cannot be read";
            return result;
        }
        return ProfileLoadResult{};  // no profile: all defaults
    }
    std::ostringstream text;
    text << in.rdbuf();
    return ParseMachineProfile(text.str(), file, baseDir);
}

std::filesystem::path DefaultProfilePath() {
    return ProgramDir() / "config" / "machine.json";
}

const MachineProfile& MachineProfile::Current() {
    return LoadedHolder().profile;
}

const std::string& MachineProfile::LoadError() {
    return LoadedHolder().error;
}

void MachineProfile::SetCurrent(MachineProfile profile) {
    auto& h = Holder();
    std::lock_guard lock(h.mutex);
    h.profile = std::move(profile);
    h.error.clear();
    h.loaded = true;
}

}  // namespace qlb
