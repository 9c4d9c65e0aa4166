// The frame reader against any byte stream, fed in pieces whose sizes the input chooses. Every frame
// it gives must encode back to the very bytes it was read from.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "runtime/ipc/frame_codec.h"

using namespace qlb::ipc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte sets the piece size, the rest is the stream.
    const std::size_t piece = static_cast<std::size_t>(data[0] % 64) + 1;
    FrameReader reader(1 << 20);  // a smaller limit keeps the fuzzer's memory low; the logic is the same
    for (std::size_t offset = 1; offset < size; offset += piece) {
        const std::size_t count = size - offset < piece ? size - offset : piece;
        reader.Feed(data + offset, count);
        FrameView frame;
        ReadStatus status;
        while ((status = reader.Next(frame)) == ReadStatus::kFrame) {
            if (!IsSendable(frame.item)) {
                std::abort();
            }
            const auto encoded = EncodeFrame(frame.item);
            if (encoded.size() != frame.rawSize) {
                std::abort();
            }
            // The three padding bytes are not carried; everything else must match.
            if (std::memcmp(encoded.data(), frame.raw, kFramePrefixSize - 3) != 0 ||
                std::memcmp(encoded.data() + kFramePrefixSize, frame.raw + kFramePrefixSize,
                            encoded.size() - kFramePrefixSize) != 0) {
                std::abort();
            }
        }
        if (status != ReadStatus::kNeedMore) {
            break;
        }
    }
    return 0;
}
