// Key paths as callers and the command line hand them in: splitting never crashes, the names it gives
// keep the limits and join back to the path, and case folding is stable.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "runtime/common/strings.h"
#include "runtime/registry/registry_path.h"

using namespace qlb::registry;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring path = DE::ANSIToUnicode(std::string_view(reinterpret_cast<const char*>(data), size));
    auto split = SplitKeyPath(path);
    if (split) {
        if (split.value.size() > kMaxKeyDepth) {
            std::abort();
        }
        std::wstring joined;
        for (const auto& name : split.value) {
            if (name.empty() || name.size() > kMaxKeyNameLength || name.find(L'\\') != std::wstring::npos) {
                std::abort();
            }
            joined += (joined.empty() ? L"" : L"\\") + name;
        }
        std::wstring expected = path;
        if (!expected.empty() && expected.front() == L'\\') {
            expected.erase(0, 1);
        }
        if (!expected.empty() && expected.back() == L'\\') {
            expected.pop_back();
        }
        if (joined != expected) {
            std::abort();
        }
    } else if (split.error != 87 && split.error != 1010) {
        std::abort();
    }
    const std::wstring folded = FoldName(path);
    if (FoldName(folded) != folded || folded.size() != path.size()) {
        std::abort();
    }
    (void)HiveFromName(path);
    (void)CheckValueName(path);
    return 0;
}
