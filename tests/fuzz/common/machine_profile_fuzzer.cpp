// Any text as config/machine.json: the reader never crashes, and a rejected profile is the defaults
// with an error that names the file.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "runtime/common/machine_profile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto result = qlb::ParseMachineProfile(text, "/fuzz/config/machine.json", "/fuzz");
    if (!result.ok()) {
        if (result.error.find("/fuzz/config/machine.json") == std::string::npos ||
            result.profile.appData != "/var/lib/qlb/appdata/") {
            std::abort();
        }
        return 0;
    }
    // Relative paths were taken against the program directory.
    if (!result.profile.appData.is_absolute() || !result.profile.logDir.is_absolute()) {
        std::abort();
    }
    return 0;
}
