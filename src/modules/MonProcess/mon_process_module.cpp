// "MonProcess.dll": the process monitor module of the service. It ends processes by force for the
// service and keeps the service's boot and shutdown notes. The protection, suspension and watch
// operations of the interface belong to a kernel component that this platform does not have; they
// answer ERROR_NOT_SUPPORTED and change nothing.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "platform/processes/process_api.h"
#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"
#include "runtime/process/mon_process.h"

#ifndef QLB_MONPROCESS_INITIALIZE_RESULT
#define QLB_MONPROCESS_INITIALIZE_RESULT 1
#endif

namespace {

constexpr DWORD kInterfaceVersion = 1;

std::string BootId() {
    std::ifstream in("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(in, id);
    return id;
}

// The notes lie in the run directory of the installation the service belongs to, as its profile
// beside it says.
std::filesystem::path NotesDir(const wchar_t* servicePath) {
    const std::filesystem::path service = qlb::W2U(servicePath);
    const auto loaded = qlb::LoadMachineProfile(service.parent_path() / "config" / "machine.json");
    return loaded.profile.runDir / "monprocess";
}

long WriteNote(const std::filesystem::path& file, const std::string& line, bool append) {
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    std::ofstream out(file, append ? std::ios::app : std::ios::trunc);
    if (!out) {
        return win::ERROR_ACCESS_DENIED;
    }
    out << line << '\n';
    out.flush();
    return out ? 0 : win::ERROR_WRITE_FAULT;
}

class MonProcessImpl final : public MonProcess {
  public:
    long QueryInterface(const ZvGuid* iid, void** object) override {
        if (object == nullptr) {
            return win::ERROR_INVALID_PARAMETER;
        }
        if (iid == nullptr || !(*iid == IID_MonProcess)) {
            *object = nullptr;
            return MONPROCESS_E_NOINTERFACE;
        }
        AddRef();
        *object = static_cast<MonProcess*>(this);
        return MONPROCESS_S_OK;
    }
    unsigned long AddRef() override { return ++refs_; }
    unsigned long Release() override {
        // The instance lives in the module; a count that would go below zero stays at zero.
        unsigned long current = refs_.load();
        while (current > 0 && !refs_.compare_exchange_weak(current, current - 1)) {
        }
        return current > 0 ? current - 1 : 0;
    }
    DWORD GetVersion() override { return kInterfaceVersion; }

    int Initialize() override {
        const int result = QLB_MONPROCESS_INITIALIZE_RESULT;
        initialized_ = result == 1;
        return result;
    }

    long ProtectProcess(DWORD) override { return NotSupported(); }
    long UnprotectProcess(DWORD) override { return NotSupported(); }
    long IsProcessProtected(DWORD, int* isProtected) override {
        if (isProtected != nullptr) {
            *isProtected = 0;
        }
        return NotSupported();
    }
    long SuspendProcess(DWORD) override { return NotSupported(); }
    long ResumeProcess(DWORD) override { return NotSupported(); }

    long KillProcess(DWORD pid) override {
        if (!initialized_) {
            return win::ERROR_INVALID_FUNCTION;
        }
        // The machine's first process and the caller itself are never ended on request: a pid sent
        // by a module must not take the machine or the service down.
        if (pid <= 1 || pid == static_cast<DWORD>(::getpid())) {
            return win::ERROR_ACCESS_DENIED;
        }
        auto process = qlb::platform::Processes().Open(pid);
        if (!process) {
            return static_cast<long>(process.error);
        }
        const auto status = process.value->Terminate(0);
        return static_cast<long>(status.error);
    }
    long KillProcessTree(DWORD) override { return NotSupported(); }

    long AddWatchedImage(const wchar_t*) override { return NotSupported(); }
    long RemoveWatchedImage(const wchar_t*) override { return NotSupported(); }
    long ClearWatchedImages() override { return NotSupported(); }
    long SetProcessCallback(void (*)(DWORD, const wchar_t*, void*), void*) override { return NotSupported(); }
    long BlockImage(const wchar_t*) override { return NotSupported(); }
    long UnblockImage(const wchar_t*) override { return NotSupported(); }
    long ProtectFile(const wchar_t*) override { return NotSupported(); }
    long UnprotectFile(const wchar_t*) override { return NotSupported(); }
    long ProtectRegistryKey(const wchar_t*) override { return NotSupported(); }
    long UnprotectRegistryKey(const wchar_t*) override { return NotSupported(); }

    long Uninitialize() override {
        initialized_ = false;
        return 0;
    }

    long QueryDriverStatus(DWORD* running) override {
        if (running == nullptr) {
            return win::ERROR_INVALID_PARAMETER;
        }
        *running = initialized_ ? 1 : 0;
        return 0;
    }

    // The note holds the boot id and the service's path; a note from an earlier boot says nothing.
    long BootAlive(const wchar_t* servicePath) override {
        if (!initialized_) {
            return win::ERROR_INVALID_FUNCTION;
        }
        if (servicePath == nullptr || *servicePath == L'\0') {
            return win::ERROR_INVALID_PARAMETER;
        }
        std::lock_guard lock(notesMutex_);
        return WriteNote(NotesDir(servicePath) / "bootalive", BootId() + '\t' + qlb::W2U(servicePath), false);
    }

    long QueryBootAlive(const wchar_t* servicePath, DWORD* alive) override {
        if (servicePath == nullptr || alive == nullptr) {
            return win::ERROR_INVALID_PARAMETER;
        }
        if (!initialized_) {
            return win::ERROR_INVALID_FUNCTION;
        }
        std::lock_guard lock(notesMutex_);
        std::ifstream in(NotesDir(servicePath) / "bootalive");
        std::string line;
        std::getline(in, line);
        *alive = line == BootId() + '\t' + qlb::W2U(servicePath) ? 1 : 0;
        return 0;
    }

    long ShutdownNotice(const wchar_t* servicePath) override {
        if (!initialized_) {
            return win::ERROR_INVALID_FUNCTION;
        }
        if (servicePath == nullptr) {
            return win::ERROR_INVALID_PARAMETER;
        }
        const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
        std::lock_guard lock(notesMutex_);
        return WriteNote(NotesDir(servicePath) / "shutdown",
                         BootId() + '\t' + std::to_string(now) + '\t' + qlb::W2U(servicePath), true);
    }

  private:
    long NotSupported() const {
        return initialized_ ? win::ERROR_NOT_SUPPORTED : win::ERROR_INVALID_FUNCTION;
    }

    std::atomic<unsigned long> refs_{0};
    std::atomic<bool> initialized_{false};
    std::mutex notesMutex_;
};

MonProcessImpl g_instance;

}  // namespace

extern "C" __attribute__((visibility("default"))) long ZvCreateInstance(const ZvGuid* iid, void** instance) {
    if (instance == nullptr) {
        return win::ERROR_INVALID_PARAMETER;
    }
    *instance = nullptr;
    return g_instance.QueryInterface(iid, instance);
}
