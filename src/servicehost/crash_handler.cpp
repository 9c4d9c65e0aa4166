#include "servicehost/crash_handler.h"

#include <dlfcn.h>

#include <mutex>

#include "runtime/common/program_dir.h"

namespace {

// Holds the module for the life of the process; the destructor runs at process exit.
struct CrashHandlerHolder {
    void* module = nullptr;
    ~CrashHandlerHolder() {
        if (module) {
            dlclose(module);
        }
    }
};

CrashHandlerHolder g_crashHandler;
std::once_flag g_crashHandlerOnce;
bool g_crashHandlerReady = false;

}  // namespace

bool SetupCrashHandlerFrom(const std::filesystem::path& directory, void*& module) {
    if (!module) {
        const auto path = directory / kCrashHandlerModule;
        module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!module) {
            return false;
        }
    }
    auto* reg = reinterpret_cast<RegisterCrashHandlerFn>(dlsym(module, kCrashHandlerExport));
    if (!reg) {
        return false;
    }
    reg(nullptr, 1, nullptr);
    return true;
}

bool SetupCrashHandler() {
    std::call_once(g_crashHandlerOnce, [] {
        g_crashHandlerReady = SetupCrashHandlerFrom(qlb::ProgramDir(), g_crashHandler.module);
    });
    return g_crashHandlerReady;
}
