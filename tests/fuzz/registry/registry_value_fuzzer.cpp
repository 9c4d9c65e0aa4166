// Values written to an in-memory store come back as they were written: key path, name and data are
// taken from the input, separated by NUL bytes; the first byte picks the type.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "runtime/common/strings.h"
#include "runtime/registry/registry_store.h"

using namespace qlb::registry;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto store = RegistryStore::Open(":memory:").value;
    if (!store || size < 1) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    // At most two NUL-ended parts are split off; missing leading parts are empty.
    std::vector<std::string> parts = {text};
    for (int i = 0; i < 2; ++i) {
        const auto nul = parts.back().find('\0');
        if (nul == std::string::npos) {
            break;
        }
        std::string rest = parts.back().substr(nul + 1);
        parts.back().resize(nul);
        parts.push_back(std::move(rest));
    }
    parts.insert(parts.begin(), 3 - parts.size(), std::string());
    const std::wstring key = DE::ANSIToUnicode(parts[0]);
    const std::wstring name = DE::ANSIToUnicode(parts[1]);
    RegValue value;
    switch (data[0] % 4) {
        case 0:
            value = RegValue::String(name, DE::ANSIToUnicode(parts[2]));
            break;
        case 1:
            value = RegValue::Dword(name, static_cast<DWORD>(std::hash<std::string>{}(parts[2])));
            break;
        case 2:
            value = RegValue::Qword(name, std::hash<std::string>{}(parts[2]));
            break;
        default:
            value = RegValue::Binary(name, std::vector<std::uint8_t>(parts[2].begin(), parts[2].end()));
            break;
    }
    const HKEY roots[] = {HKEY_LOCAL_MACHINE, HKEY_USERS, HKEY_CURRENT_USER};
    const HKEY root = roots[data[0] / 4 % 3];
    if (!store->SetValue(root, key, value)) {
        return 0;
    }
    auto read = store->GetValue(root, key, name);
    if (!read || read.value.type != value.type || read.value.text != value.text ||
        read.value.number != value.number || read.value.bytes != value.bytes) {
        std::abort();
    }
    // Keep the store small: each input cleans up after itself.
    if (!store->DeleteValue(root, key, name)) {
        std::abort();
    }
    return 0;
}
