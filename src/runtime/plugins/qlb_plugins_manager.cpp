#include "runtime/plugins/qlb_plugins_manager.h"

#include <dlfcn.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "runtime/common/logging.h"
#include "runtime/common/program_dir.h"
#include "runtime/process/verified_module.h"

struct QLBPluginsManager::Loaded {
    qlb::plugins::PluginEntry entry;
    void* module = nullptr;
    X3UninitializePluginFn uninitialize = nullptr;
    X3CreateObjectFn createObject = nullptr;
};

QLBPluginsManager::QLBPluginsManager() : QLBPluginsManager(qlb::ProgramDir() / "plugins") {}

QLBPluginsManager::QLBPluginsManager(std::filesystem::path pluginDir) : pluginDir_(std::move(pluginDir)) {}

QLBPluginsManager::~QLBPluginsManager() {
    UnloadAllPlugins();
}

bool QLBPluginsManager::LoadCfg(const char* path, int process) {
    if (path == nullptr) {
        QLOG_ERROR("plugin cfg path is null.");
        return false;
    }
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    if (ec) {
        QLOG_ERROR("plugin cfg can't be read: " << path << ", " << ec.message());
        return false;
    }
    if (size > qlb::plugins::kMaxPluginConfigSize) {
        QLOG_ERROR("plugin cfg is too large: " << path << ", size=" << size);
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
        QLOG_ERROR("plugin cfg can't be read: " << path);
        return false;
    }
    qlb::plugins::PluginConfig config;
    std::string error;
    if (!qlb::plugins::ParsePluginConfig(text.str(), config, error)) {
        QLOG_ERROR("plugin cfg is malformed: " << path << ", " << error);
        return false;
    }
    configured_.clear();
    for (auto& entry : config.plugins) {
        if (entry.process == process) {
            configured_.push_back(std::move(entry));
        }
    }
    process_ = process;
    return true;
}

bool QLBPluginsManager::LoadAllPlugins(InitContext* context) {
    bool all = true;
    for (const auto& entry : configured_) {
        if (!entry.open) {
            continue;
        }
        const bool already = std::any_of(loaded_.begin(), loaded_.end(),
                                         [&](const auto& l) { return l->entry.name == entry.name; });
        if (!already && !LoadOne(entry, context)) {
            all = false;
        }
    }
    return all;
}

bool QLBPluginsManager::LoadOne(const qlb::plugins::PluginEntry& entry, InitContext* context) {
    const auto path = pluginDir_ / (entry.name + ".dll");
    auto verified = qlb::process::OpenVerifiedModule(path);
    if (verified.signError != 0) {
        QLOG_ERROR("plugin not loaded, signature check failed: " << path.string() << ", error=0x" << std::hex
                                                                 << verified.signError);
        return false;
    }
    auto loaded = std::make_unique<Loaded>();
    loaded->entry = entry;
    loaded->module = verified.Load();
    if (loaded->module == nullptr) {
        const char* why = ::dlerror();
        QLOG_ERROR("plugin not loaded: " << path.string() << ", " << (why != nullptr ? why : "unknown"));
        return false;
    }
    auto initialize = reinterpret_cast<X3InitializePluginFn>(::dlsym(loaded->module, kX3InitializePlugin));
    loaded->uninitialize =
        reinterpret_cast<X3UninitializePluginFn>(::dlsym(loaded->module, kX3UninitializePlugin));
    loaded->createObject = reinterpret_cast<X3CreateObjectFn>(::dlsym(loaded->module, kX3CreateObject));
    if (initialize == nullptr || loaded->uninitialize == nullptr || loaded->createObject == nullptr) {
        QLOG_ERROR("plugin not loaded, entries missing: " << path.string());
        ::dlclose(loaded->module);
        return false;
    }
    const std::string programDir = pluginDir_.parent_path().string() + "/";
    InitContext own{sizeof(InitContext), static_cast<std::uint32_t>(process_), programDir.c_str(),
                    entry.name.c_str()};
    if (initialize(context != nullptr ? context : &own) == 0) {
        QLOG_ERROR("plugin refused to initialize: " << entry.name);
        ::dlclose(loaded->module);
        return false;
    }
    loaded_.push_back(std::move(loaded));
    return true;
}

void QLBPluginsManager::UnloadAllPlugins() {
    while (!loaded_.empty()) {
        auto loaded = std::move(loaded_.back());
        loaded_.pop_back();
        if (loaded->uninitialize() == 0) {
            QLOG_WARN("plugin uninitialize gave 0: " << loaded->entry.name);
        }
        ::dlclose(loaded->module);
    }
}

bool QLBPluginsManager::CreateObject(const std::string& clsid, void** object) {
    if (object == nullptr || clsid.empty()) {
        return false;
    }
    for (const auto& loaded : loaded_) {
        if (loaded->entry.clsid == clsid) {
            return loaded->createObject(clsid.c_str(), object) != 0;
        }
    }
    return false;
}

std::vector<std::string> QLBPluginsManager::LoadedPlugins() const {
    std::vector<std::string> names;
    for (const auto& loaded : loaded_) {
        names.push_back(loaded->entry.name);
    }
    return names;
}
