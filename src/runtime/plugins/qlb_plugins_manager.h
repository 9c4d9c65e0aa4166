#pragma once
// QLBPluginsManager: the plugin host. It reads the plugin configuration, loads the plugins configured
// for its process kind from the program directory's "plugins" folder (each only with a good
// signature and all three entries), initialises them in document order and unloads them in reverse.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "runtime/plugins/plugin_abi.h"
#include "runtime/plugins/plugin_config.h"

class QLBPluginsManager {
  public:
    // Plugins come from ProgramDir()/plugins.
    QLBPluginsManager();
    // Plugins come from `pluginDir` (tools and tests).
    explicit QLBPluginsManager(std::filesystem::path pluginDir);
    // Unloads whatever is still loaded.
    virtual ~QLBPluginsManager();
    QLBPluginsManager(const QLBPluginsManager&) = delete;
    QLBPluginsManager& operator=(const QLBPluginsManager&) = delete;

    // Reads the configuration at `path` and keeps the plugins of process kind `process` (the service
    // is 1). False, with a log line, when the file can't be read or is no plugin list; the plugins
    // configured before stay configured then.
    virtual bool LoadCfg(const char* path, int process);

    // Loads every open plugin of the configuration that is not loaded yet. A null context gives each
    // plugin one made by the host. True when all of them loaded; false when any failed, in which case
    // those that did load stay loaded until UnloadAllPlugins.
    virtual bool LoadAllPlugins(InitContext* context);

    // Uninitialises and unloads the loaded plugins, last loaded first. Calling it again does nothing.
    virtual void UnloadAllPlugins();

    // Hands the request to the loaded plugin configured with `clsid`. False when none is, or it
    // refused.
    bool CreateObject(const std::string& clsid, void** object);

    // Names of the loaded plugins, in load order.
    std::vector<std::string> LoadedPlugins() const;
    const std::vector<qlb::plugins::PluginEntry>& ConfiguredPlugins() const { return configured_; }

  private:
    struct Loaded;
    bool LoadOne(const qlb::plugins::PluginEntry& entry, InitContext* context);

    std::filesystem::path pluginDir_;
    int process_ = 0;
    std::vector<qlb::plugins::PluginEntry> configured_;
    std::vector<std::unique_ptr<Loaded>> loaded_;
};
