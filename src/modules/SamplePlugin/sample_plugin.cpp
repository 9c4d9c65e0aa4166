// "QLBSamplePlugin.dll": the smallest plugin the host accepts. It shows a plugin's shape and lets the
// host be checked end to end: it counts its initialisations and hands out one object for its class
// id. It does nothing else, so listing it in a configuration is harmless.

#include <atomic>
#include <cstring>

#include "runtime/plugins/plugin_abi.h"

#ifndef QLB_SAMPLE_PLUGIN_INIT_RESULT
#define QLB_SAMPLE_PLUGIN_INIT_RESULT 1
#endif

#define QLB_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr char kSampleClsid[] = "{6F1D2C3B-9A48-4E5F-8B7C-2D1E0F3A4B5C}";

std::atomic<int> g_initialized{0};
std::atomic<int> g_uninitialized{0};
std::atomic<unsigned> g_lastProcess{0};

// The object the plugin hands out: a counter that tells it was reached.
struct SampleObject {
    int magic = 0x51424C;
};
SampleObject g_object;

}  // namespace

QLB_PLUGIN_EXPORT int x3InitializePlugin(const InitContext* context) {
    g_lastProcess = context != nullptr ? context->process : 0;
    ++g_initialized;
    return QLB_SAMPLE_PLUGIN_INIT_RESULT;
}

QLB_PLUGIN_EXPORT int x3UninitializePlugin() {
    ++g_uninitialized;
    return 1;
}

QLB_PLUGIN_EXPORT int x3CreateObject(const char* clsid, void** object) {
    if (clsid == nullptr || object == nullptr || std::strcmp(clsid, kSampleClsid) != 0) {
        return 0;
    }
    *object = &g_object;
    return 1;
}

// For checks from outside: how often the plugin was initialised and uninitialised in this load,
// and the process kind it was last given.
QLB_PLUGIN_EXPORT int QlbSamplePluginInitCount() {
    return g_initialized;
}
QLB_PLUGIN_EXPORT int QlbSamplePluginUninitCount() {
    return g_uninitialized;
}
QLB_PLUGIN_EXPORT int QlbSamplePluginLastProcess() {
    return static_cast<int>(g_lastProcess.load());
}
