// The plugin configuration parser on arbitrary bytes: it never crashes, and whatever it accepts reads
// back the same after writing.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "runtime/plugins/plugin_config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    qlb::plugins::PluginConfig config;
    std::string error;
    if (!qlb::plugins::ParsePluginConfig(text, config, error)) {
        return 0;
    }
    qlb::plugins::PluginConfig back;
    if (!qlb::plugins::ParsePluginConfig(qlb::plugins::WritePluginConfig(config), back, error) ||
        back.plugins != config.plugins) {
        std::abort();
    }
    return 0;
}
