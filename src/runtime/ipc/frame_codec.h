#pragma once
// The wire format of the IPC channel, free of sockets so that it can be tested and fuzzed alone.
//
//   HELLO (client -> hub):  u32 magic "QLBI", u32 version 1, i32 moduleId
//   reply (hub -> client):  u32 magic, u32 version, i32 status (0 joined, else an errno; then closed)
//   frame (both ways):      u32 length = 32 + dataLength, 32-byte header, dataLength bytes
//
// All integers are little-endian. The header is toModuleId, fromModuleId, messageId, reservedA,
// reservedB, syncMessageId, dataLength (i32 each), reservedFlag (u8) and three zero bytes.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/ipc/ipc_message_item.h"

namespace qlb::ipc {

inline constexpr std::uint32_t kHelloMagic = 0x49424C51;  // "QLBI" on the wire
inline constexpr std::uint32_t kProtocolVersion = 1;
inline constexpr std::size_t kHelloSize = 12;
inline constexpr std::size_t kLengthSize = 4;
inline constexpr std::size_t kHeaderSize = 32;
inline constexpr std::size_t kFramePrefixSize = kLengthSize + kHeaderSize;
inline constexpr std::int32_t kMaxDataLength = 16 * 1024 * 1024;

void PutU32(std::uint8_t* out, std::uint32_t value) noexcept;
std::uint32_t GetU32(const std::uint8_t* in) noexcept;

struct Hello {
    std::uint32_t magic = kHelloMagic;
    std::uint32_t version = kProtocolVersion;
    std::int32_t value = 0;  // the module id in a HELLO, the status in its reply
};

std::array<std::uint8_t, kHelloSize> EncodeHello(const Hello& hello) noexcept;
Hello DecodeHello(std::span<const std::uint8_t, kHelloSize> bytes) noexcept;

// Writes the length field and the header of `item` (36 bytes) to `out`.
void EncodeFramePrefix(const TagIPCMessageItem& item, std::uint8_t* out) noexcept;
// The whole frame; the caller has checked that dataLength is within 0..kMaxDataLength and that data
// is set when it is not 0.
std::vector<std::uint8_t> EncodeFrame(const TagIPCMessageItem& item);
// Whether an item can be put on the wire at all.
bool IsSendable(const TagIPCMessageItem& item) noexcept;

// Decodes the 32 header bytes; `data` is left null.
TagIPCMessageItem DecodeHeader(const std::uint8_t* header) noexcept;

enum class ReadStatus {
    kNeedMore,   // no complete frame buffered
    kFrame,      // one frame decoded
    kBadLength,  // the length field disagrees with the header (or is below the header size)
    kTooLarge,   // the data would exceed kMaxDataLength
};

std::string_view ReadStatusText(ReadStatus status) noexcept;

// A decoded frame. `item.data` and `raw` point into the reader's buffer and stay good until the
// reader is next fed or asked for a frame.
struct FrameView {
    TagIPCMessageItem item;
    const std::uint8_t* raw = nullptr;  // the whole frame as received, length field included
    std::size_t rawSize = 0;
};

// Incremental frame reader: bytes go in as they arrive, whole frames come out. After an error the
// stream is out of step for good, and every later call gives the same error.
class FrameReader {
  public:
    explicit FrameReader(std::int32_t maxDataLength = kMaxDataLength) : maxDataLength_(maxDataLength) {}

    void Feed(const std::uint8_t* bytes, std::size_t count);
    // Room for at least `minimum` bytes at the end of the buffer, to read into directly; Commit says
    // how many were written.
    std::span<std::uint8_t> WritableTail(std::size_t minimum);
    void Commit(std::size_t count) noexcept;

    ReadStatus Next(FrameView& frame);

    // Bytes received and not yet handed out as a frame (a peer that leaves with some is cut off in
    // the middle of a frame).
    std::size_t Buffered() const noexcept { return end_ - begin_; }

  private:
    void Compact();

    std::vector<std::uint8_t> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::int32_t maxDataLength_;
    ReadStatus error_ = ReadStatus::kNeedMore;
};

}  // namespace qlb::ipc
