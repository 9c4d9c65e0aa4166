#pragma once
// DE::Registry: the registry wrapper the whole product writes through. One store per machine (the
// profile's "registry"), shared by every process of the product. Key and value names compare without
// regard to case and keep the case they were created with; a leading '\' of a key path is ignored.
// All calls take the access mask 0xF003F; it is accepted and not enforced.

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/common/win_types.h"

namespace DE {

class Registry {
  public:
    Registry() = default;
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // Static form: false on failure (no such key or value, wrong type, store unreadable).
    static bool GetValue(HKEY root, const std::wstring& key, const std::wstring& name, std::wstring& value,
                         REGSAM access = KEY_ALL_ACCESS);
    static bool GetValue(HKEY root, const std::wstring& key, const std::wstring& name, DWORD& value,
                         REGSAM access = KEY_ALL_ACCESS);
    static bool GetValue(HKEY root, const std::wstring& key, const std::wstring& name, int& value,
                         REGSAM access = KEY_ALL_ACCESS);
    // Creates the key and its parents if needed, then stores the value (durable when it returns true).
    static bool SetValue(HKEY root, const std::wstring& key, const std::wstring& name,
                         const std::wstring& value, REGSAM access = KEY_ALL_ACCESS);
    static bool SetValue(HKEY root, const std::wstring& key, const std::wstring& name, const int& value,
                         REGSAM access = KEY_ALL_ACCESS);
    static bool SetValue(HKEY root, const std::wstring& key, const std::wstring& name, const DWORD& value,
                         REGSAM access = KEY_ALL_ACCESS);

    // Object form: bound to a root, and after OpenKey to one key.
    void SetRootKey(HKEY root);
    bool KeyExists(const std::wstring& key);
    // Creates the key under the root and all its parents; true if it exists afterwards.
    bool CreateKey(const std::wstring& key);
    // Makes `key` the current key; with `create`, creates it first if needed.
    bool OpenKey(const std::wstring& key, bool create = false);
    bool OpenKey(HKEY root, const std::wstring& key, bool create = false);
    // Deletes a key that has no subkeys.
    bool DeleteKey(const std::wstring& key);
    // Deletes a value of the current key.
    bool DeleteValue(const std::wstring& name);
    // Deletes the key with everything that lies below it.
    bool RegDeleteAll(const std::wstring& key);
    bool RegDeleteAll(HKEY root, const std::wstring& key);

    // The names of the subkeys of `key` under the root, and of its values, in the registry's order; empty
    // on failure (LastError() tells).
    std::vector<std::wstring> EnumSubkeys(const std::wstring& key);
    std::vector<std::wstring> EnumValueNames(const std::wstring& key);

    // The Windows error number of this object's last failed call.
    std::uint32_t LastError() const noexcept { return lastError_; }

  private:
    bool Finish(std::uint32_t error);

    // No root until SetRootKey or OpenKey(root, ...): calls on the object then fail with
    // ERROR_INVALID_HANDLE, as a null root handle does.
    HKEY root_ = 0;
    std::wstring currentKey_;
    bool keyOpen_ = false;
    std::uint32_t lastError_ = 0;
};

}  // namespace DE
