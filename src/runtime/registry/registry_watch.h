#pragma once
// RegistryWatch: waits until a key, or anything below it, changes in any process that shares the
// store. It stands where a registry change notification stands: Arm() takes the key's state now,
// WaitForChange() blocks until the state differs from it. Like a notification event that nobody
// resets, a watch that has seen a change keeps reporting it until it is armed again.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "runtime/common/result.h"
#include "runtime/common/win_types.h"
#include "runtime/registry/registry_store.h"

namespace qlb::registry {

class RegistryWatch {
  public:
    enum class WaitResult {
        Changed,    // the key, its values or (with the subtree) anything below it changed, or it was deleted
        Timeout,    // nothing changed within the time
        Cancelled,  // Cancel() was called
        Failed,     // the store could not be read; LastError() tells why
    };

    // Watches `key` under `root`; the key must exist (ERROR_FILE_NOT_FOUND otherwise). The watch is
    // armed when it is returned.
    static SysResult<std::unique_ptr<RegistryWatch>> Create(std::shared_ptr<RegistryStore> store, HKEY root,
                                                            std::wstring key, bool watchSubtree);
    // The same on the process's store (RegistryStore::Default()).
    static SysResult<std::unique_ptr<RegistryWatch>> Create(HKEY root, std::wstring key, bool watchSubtree);
    ~RegistryWatch();
    RegistryWatch(const RegistryWatch&) = delete;
    RegistryWatch& operator=(const RegistryWatch&) = delete;

    // Takes the key's present state as the one later waits compare against.
    SysStatus Arm();
    // Blocks until a change, the timeout (INFINITE: none) or Cancel().
    WaitResult WaitForChange(DWORD timeoutMs);
    // Callable from any thread: wakes a waiter, and every later wait returns Cancelled.
    void Cancel() noexcept;

    std::uint32_t LastError() const noexcept { return lastError_; }

  private:
    RegistryWatch(std::shared_ptr<RegistryStore> store, HKEY root, std::wstring key, bool subtree);
    SysStatus OpenWakeups();
    // True when the key's state is not the armed one any more.
    SysResult<bool> HasChanged();
    void DrainWakeups();

    std::shared_ptr<RegistryStore> store_;
    HKEY root_;
    std::wstring key_;
    bool subtree_;
    ChangeStamp armed_;
    bool changed_ = false;
    std::atomic<bool> cancelled_{false};
    int inotifyFd_ = -1;
    int cancelFd_ = -1;
    std::uint32_t lastError_ = 0;
};

}  // namespace qlb::registry
