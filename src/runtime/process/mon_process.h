#pragma once
// The interface of the process monitor module "MonProcess.dll", which the service loads by hand from
// its program directory, and how it is loaded.
//
// The module exports one C function, "ZvCreateInstance", that hands out the interface for its id.
// The interface is a table of 27 operations whose positions (counted from 1) are part of the contract
// between the service and the module: a module built separately must keep them. That is why the
// interface has no virtual destructor (it would take two positions): the module owns its one instance
// and the service never deletes it.

#include <cstdint>

#include "runtime/common/win_types.h"

struct ZvGuid {
    std::uint32_t data1;
    std::uint16_t data2;
    std::uint16_t data3;
    std::uint8_t data4[8];

    friend bool operator==(const ZvGuid&, const ZvGuid&) = default;
};

// {DB97FBF1-BC0A-4DE6-AD98-F7DB4410F3FA}
inline constexpr ZvGuid IID_MonProcess = {
    0xDB97FBF1, 0xBC0A, 0x4DE6, {0xAD, 0x98, 0xF7, 0xDB, 0x44, 0x10, 0xF3, 0xFA}};

inline constexpr long MONPROCESS_S_OK = 0;
inline constexpr long MONPROCESS_E_NOINTERFACE = static_cast<long>(0x80004002);

// Results are 0 on success and a Windows error number otherwise, unless an operation says more.
class MonProcess {
  public:
    // 1-3: the object model. The instance lives as long as the module; the counts only guard misuse.
    virtual long QueryInterface(const ZvGuid* iid, void** object) = 0;
    virtual unsigned long AddRef() = 0;
    virtual unsigned long Release() = 0;
    // 4: the interface revision the module implements.
    virtual DWORD GetVersion() = 0;
    // 5: 1 on success; every other operation but the object model fails before it.
    virtual int Initialize() = 0;
    // 6-10: protection and suspension of processes.
    virtual long ProtectProcess(DWORD pid) = 0;
    virtual long UnprotectProcess(DWORD pid) = 0;
    virtual long IsProcessProtected(DWORD pid, int* isProtected) = 0;
    virtual long SuspendProcess(DWORD pid) = 0;
    virtual long ResumeProcess(DWORD pid) = 0;
    // 11: ends the process at once, whoever runs it.
    virtual long KillProcess(DWORD pid) = 0;
    // 12: ends the process and every process below it.
    virtual long KillProcessTree(DWORD pid) = 0;
    // 13-15: images whose start the module reports.
    virtual long AddWatchedImage(const wchar_t* path) = 0;
    virtual long RemoveWatchedImage(const wchar_t* path) = 0;
    virtual long ClearWatchedImages() = 0;
    // 16: where start reports go.
    virtual long SetProcessCallback(void (*callback)(DWORD pid, const wchar_t* path, void* context),
                                    void* context) = 0;
    // 17-22: images, files and registry keys kept from change.
    virtual long BlockImage(const wchar_t* path) = 0;
    virtual long UnblockImage(const wchar_t* path) = 0;
    virtual long ProtectFile(const wchar_t* path) = 0;
    virtual long UnprotectFile(const wchar_t* path) = 0;
    virtual long ProtectRegistryKey(const wchar_t* key) = 0;
    virtual long UnprotectRegistryKey(const wchar_t* key) = 0;
    // 23: undoes Initialize; the result carries no meaning for the caller.
    virtual long Uninitialize() = 0;
    // 24: 1 in `running` when the module's back end is working.
    virtual long QueryDriverStatus(DWORD* running) = 0;
    // 25: the service at `servicePath` says it is alive in this boot.
    virtual long BootAlive(const wchar_t* servicePath) = 0;
    // 26: 1 in `alive` when the service at `servicePath` has said so in this boot.
    virtual long QueryBootAlive(const wchar_t* servicePath, DWORD* alive) = 0;
    // 27: the machine is going down with the service at `servicePath` still running.
    virtual long ShutdownNotice(const wchar_t* servicePath) = 0;

  protected:
    ~MonProcess() = default;
};

// The export "ZvCreateInstance".
using ZvCreateInstanceFn = long (*)(const ZvGuid* iid, void** instance);
inline constexpr char kZvCreateInstanceName[] = "ZvCreateInstance";
inline constexpr wchar_t kMonProcessFileName[] = L"MonProcess.dll";

// Loads "MonProcess.dll" from the program directory after checking its signature, creates the
// interface and initialises it. `module` and `instance` must be null on entry; whatever the result,
// the caller releases what they hold afterwards (ReleaseMonProcess). An unsigned or altered module is
// never loaded. True when Initialize gave 1.
bool LoadMonProcess(void*& module, MonProcess*& instance);

// Uninitialize when the interface is set, then unload the module when it is set; clears both.
void ReleaseMonProcess(void*& module, MonProcess*& instance);
