#include "runtime/registry/de_registry.h"

#include "runtime/registry/registry_store.h"

namespace DE {
namespace {

using qlb::registry::RegistryStore;
using qlb::registry::RegValue;

template <typename Fn>
std::uint32_t WithStore(Fn&& fn) {
    auto store = RegistryStore::Default();
    if (!store) {
        return store.error;
    }
    return fn(*store.value).error;
}

std::uint32_t ReadValue(HKEY root, const std::wstring& key, const std::wstring& name, RegValue& out) {
    return WithStore([&](RegistryStore& store) {
        auto read = store.GetValue(root, key, name);
        if (read) {
            out = std::move(read.value);
        }
        return SysStatus{read.error};
    });
}

std::uint32_t WriteValue(HKEY root, const std::wstring& key, const RegValue& value) {
    return WithStore([&](RegistryStore& store) { return store.SetValue(root, key, value, true); });
}

}  // namespace

Registry::~Registry() = default;

bool Registry::GetValue(HKEY root, const std::wstring& key, const std::wstring& name, std::wstring& value,
                        REGSAM /*access*/) {
    RegValue read;
    if (ReadValue(root, key, name, read) != win::ERROR_SUCCESS ||
        (read.type != REG_SZ && read.type != qlb::registry::kRegExpandSz)) {
        return false;
    }
    value = std::move(read.text);
    return true;
}

bool Registry::GetValue(HKEY root, const std::wstring& key, const std::wstring& name, DWORD& value,
                        REGSAM /*access*/) {
    RegValue read;
    if (ReadValue(root, key, name, read) != win::ERROR_SUCCESS || read.type != REG_DWORD) {
        return false;
    }
    value = static_cast<DWORD>(read.number);
    return true;
}

bool Registry::GetValue(HKEY root, const std::wstring& key, const std::wstring& name, int& value,
                        REGSAM access) {
    DWORD number = 0;
    if (!GetValue(root, key, name, number, access)) {
        return false;
    }
    value = static_cast<int>(number);
    return true;
}

bool Registry::SetValue(HKEY root, const std::wstring& key, const std::wstring& name,
                        const std::wstring& value, REGSAM /*access*/) {
    return WriteValue(root, key, RegValue::String(name, value)) == win::ERROR_SUCCESS;
}

bool Registry::SetValue(HKEY root, const std::wstring& key, const std::wstring& name, const int& value,
                        REGSAM /*access*/) {
    return WriteValue(root, key, RegValue::Dword(name, static_cast<DWORD>(value))) == win::ERROR_SUCCESS;
}

bool Registry::SetValue(HKEY root, const std::wstring& key, const std::wstring& name, const DWORD& value,
                        REGSAM /*access*/) {
    return WriteValue(root, key, RegValue::Dword(name, value)) == win::ERROR_SUCCESS;
}

void Registry::SetRootKey(HKEY root) {
    root_ = root;
    keyOpen_ = false;
    currentKey_.clear();
}

bool Registry::Finish(std::uint32_t error) {
    lastError_ = error;
    return error == win::ERROR_SUCCESS;
}

bool Registry::KeyExists(const std::wstring& key) {
    if (root_ == 0) {
        return Finish(win::ERROR_INVALID_HANDLE);
    }
    return Finish(WithStore([&](RegistryStore& store) { return store.OpenKey(root_, key); }));
}

bool Registry::CreateKey(const std::wstring& key) {
    if (root_ == 0) {
        return Finish(win::ERROR_INVALID_HANDLE);
    }
    return Finish(WithStore([&](RegistryStore& store) { return store.CreateKey(root_, key); }));
}

bool Registry::OpenKey(const std::wstring& key, bool create) {
    if (root_ == 0) {
        return Finish(win::ERROR_INVALID_HANDLE);
    }
    const std::uint32_t error = WithStore([&](RegistryStore& store) {
        return create ? store.CreateKey(root_, key) : store.OpenKey(root_, key);
    });
    // A failed open leaves no key open, as a failed RegOpenKeyEx leaves no handle.
    keyOpen_ = error == win::ERROR_SUCCESS;
    currentKey_ = keyOpen_ ? key : std::wstring();
    return Finish(error);
}

bool Registry::OpenKey(HKEY root, const std::wstring& key, bool create) {
    SetRootKey(root);
    return OpenKey(key, create);
}

bool Registry::DeleteKey(const std::wstring& key) {
    if (root_ == 0) {
        return Finish(win::ERROR_INVALID_HANDLE);
    }
    return Finish(WithStore([&](RegistryStore& store) { return store.DeleteKey(root_, key); }));
}

bool Registry::DeleteValue(const std::wstring& name) {
    if (root_ == 0 || !keyOpen_) {
        return Finish(win::ERROR_INVALID_HANDLE);
    }
    return Finish(
        WithStore([&](RegistryStore& store) { return store.DeleteValue(root_, currentKey_, name); }));
}

bool Registry::RegDeleteAll(const std::wstring& key) {
    if (root_ == 0) {
        return Finish(win::ERROR_INVALID_HANDLE);
    }
    return Finish(WithStore([&](RegistryStore& store) { return store.DeleteTree(root_, key); }));
}

bool Registry::RegDeleteAll(HKEY root, const std::wstring& key) {
    SetRootKey(root);
    return RegDeleteAll(key);
}

std::vector<std::wstring> Registry::EnumSubkeys(const std::wstring& key) {
    std::vector<std::wstring> names;
    if (root_ == 0) {
        Finish(win::ERROR_INVALID_HANDLE);
        return names;
    }
    Finish(WithStore([&](RegistryStore& store) {
        auto listed = store.EnumSubkeys(root_, key);
        names = std::move(listed.value);
        return SysStatus{listed.error};
    }));
    return names;
}

std::vector<std::wstring> Registry::EnumValueNames(const std::wstring& key) {
    std::vector<std::wstring> names;
    if (root_ == 0) {
        Finish(win::ERROR_INVALID_HANDLE);
        return names;
    }
    Finish(WithStore([&](RegistryStore& store) {
        auto listed = store.EnumValues(root_, key);
        for (auto& value : listed.value) {
            names.push_back(std::move(value.name));
        }
        return SysStatus{listed.error};
    }));
    return names;
}

}  // namespace DE
