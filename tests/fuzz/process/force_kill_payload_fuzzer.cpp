// The process id text of a force-kill request: any bytes of any length convert or raise one of the
// two conversion errors, and nothing beyond the payload is read.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "messageservice/process_control.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 4096) {
        return 0;
    }
    // A copy of exactly `size` bytes, so that reading past the payload is caught.
    auto payload = std::make_unique<unsigned char[]>(size);
    std::memcpy(payload.get(), data, size);
    try {
        (void)qlb::process_control::ParseProcessIdText(payload.get(), static_cast<std::int32_t>(size));
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    return 0;
}
