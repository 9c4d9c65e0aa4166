// Control socket messages: any bytes decode to nothing or to a message that encodes back to the same
// bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "platform/services/control_channel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    if (const auto request = qlb::platform::DecodeControlRequest(bytes)) {
        const auto again = qlb::platform::EncodeControlRequest(*request);
        if (again.size() != size || std::memcmp(again.data(), data, size) != 0) {
            std::abort();
        }
    }
    if (const auto reply = qlb::platform::DecodeControlReply(bytes)) {
        const auto again = qlb::platform::EncodeControlReply(*reply);
        if (again.size() != size || std::memcmp(again.data(), data, size) != 0) {
            std::abort();
        }
    }
    return 0;
}
