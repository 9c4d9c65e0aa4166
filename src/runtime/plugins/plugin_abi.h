#pragma once
// What a plugin module exports, and what the plugin host hands it. A plugin is a shared object named
// "<name>.dll" in the program directory's "plugins" folder, signed like every module the service
// loads, with three C entries:
//
//   int x3InitializePlugin(const InitContext* context);  // non-zero: the plugin is ready
//   int x3UninitializePlugin(void);                      // the result is only logged
//   int x3CreateObject(const char* clsid, void** object); // non-zero: *object is set
//
// The host calls x3InitializePlugin once after loading and x3UninitializePlugin once before
// unloading, both on the host's thread. The context lives only for the call.

#include <cstdint>

struct InitContext {
    std::uint32_t size;      // sizeof(InitContext); later revisions only append fields
    std::uint32_t process;   // the process kind whose plugins are loaded (plugincfg.xml "process")
    const char* programDir;  // the host's program directory, ending in '/'
    const char* pluginName;  // the plugin's "name" in plugincfg.xml
};

extern "C" {
using X3InitializePluginFn = int (*)(const InitContext* context);
using X3UninitializePluginFn = int (*)();
using X3CreateObjectFn = int (*)(const char* clsid, void** object);
}

inline constexpr char kX3InitializePlugin[] = "x3InitializePlugin";
inline constexpr char kX3UninitializePlugin[] = "x3UninitializePlugin";
inline constexpr char kX3CreateObject[] = "x3CreateObject";
