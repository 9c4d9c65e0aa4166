#include "runtime/ipc/frame_codec.h"

#include <cstring>

namespace qlb::ipc {

void PutU32(std::uint8_t* out, std::uint32_t value) noexcept {
    out[0] = static_cast<std::uint8_t>(value);
    out[1] = static_cast<std::uint8_t>(value >> 8);
    out[2] = static_cast<std::uint8_t>(value >> 16);
    out[3] = static_cast<std::uint8_t>(value >> 24);
}

std::uint32_t GetU32(const std::uint8_t* in) noexcept {
    return static_cast<std::uint32_t>(in[0]) | (static_cast<std::uint32_t>(in[1]) << 8) |
           (static_cast<std::uint32_t>(in[2]) << 16) | (static_cast<std::uint32_t>(in[3]) << 24);
}

namespace {

void PutI32(std::uint8_t* out, std::int32_t value) noexcept {
    PutU32(out, static_cast<std::uint32_t>(value));
}
std::int32_t GetI32(const std::uint8_t* in) noexcept {
    return static_cast<std::int32_t>(GetU32(in));
}

}  // namespace

std::array<std::uint8_t, kHelloSize> EncodeHello(const Hello& hello) noexcept {
    std::array<std::uint8_t, kHelloSize> bytes{};
    PutU32(bytes.data(), hello.magic);
    PutU32(bytes.data() + 4, hello.version);
    PutI32(bytes.data() + 8, hello.value);
    return bytes;
}

Hello DecodeHello(std::span<const std::uint8_t, kHelloSize> bytes) noexcept {
    return Hello{GetU32(bytes.data()), GetU32(bytes.data() + 4), GetI32(bytes.data() + 8)};
}

void EncodeFramePrefix(const TagIPCMessageItem& item, std::uint8_t* out) noexcept {
    PutU32(out, static_cast<std::uint32_t>(kHeaderSize) + static_cast<std::uint32_t>(item.dataLength));
    std::uint8_t* header = out + kLengthSize;
    PutI32(header, item.toModuleId);
    PutI32(header + 4, item.fromModuleId);
    PutI32(header + 8, item.messageId);
    PutI32(header + 12, item.reservedA);
    PutI32(header + 16, item.reservedB);
    PutI32(header + 20, item.syncMessageId);
    PutI32(header + 24, item.dataLength);
    header[28] = item.reservedFlag;
    header[29] = header[30] = header[31] = 0;
}

bool IsSendable(const TagIPCMessageItem& item) noexcept {
    if (item.dataLength < 0 || item.dataLength > kMaxDataLength) {
        return false;
    }
    return item.dataLength == 0 || item.data != nullptr;
}

std::vector<std::uint8_t> EncodeFrame(const TagIPCMessageItem& item) {
    const auto dataLength = static_cast<std::size_t>(item.dataLength);
    std::vector<std::uint8_t> frame(kFramePrefixSize + dataLength);
    EncodeFramePrefix(item, frame.data());
    if (dataLength != 0) {
        std::memcpy(frame.data() + kFramePrefixSize, item.data, dataLength);
    }
    return frame;
}

TagIPCMessageItem DecodeHeader(const std::uint8_t* header) noexcept {
    TagIPCMessageItem item;
    item.toModuleId = GetI32(header);
    item.fromModuleId = GetI32(header + 4);
    item.messageId = GetI32(header + 8);
    item.reservedA = GetI32(header + 12);
    item.reservedB = GetI32(header + 16);
    item.syncMessageId = GetI32(header + 20);
    item.dataLength = GetI32(header + 24);
    item.reservedFlag = header[28];
    return item;
}

std::string_view ReadStatusText(ReadStatus status) noexcept {
    switch (status) {
        case ReadStatus::kNeedMore:
            return "incomplete frame";
        case ReadStatus::kFrame:
            return "frame";
        case ReadStatus::kBadLength:
            return "length field disagrees with the header";
        case ReadStatus::kTooLarge:
            return "frame data above the limit";
    }
    return "unknown";
}

void FrameReader::Compact() {
    if (begin_ == end_) {
        begin_ = end_ = 0;
    } else if (begin_ != 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
}

std::span<std::uint8_t> FrameReader::WritableTail(std::size_t minimum) {
    // A large frame once read leaves no large buffer behind: a hub holds one reader per connection.
    constexpr std::size_t kKeep = 256 * 1024;
    if (begin_ == end_ && buffer_.size() > kKeep && minimum <= kKeep) {
        std::vector<std::uint8_t>(kKeep).swap(buffer_);
        begin_ = end_ = 0;
    }
    if (buffer_.size() - end_ < minimum) {
        Compact();
        if (buffer_.size() - end_ < minimum) {
            buffer_.resize(end_ + minimum);
        }
    }
    return {buffer_.data() + end_, buffer_.size() - end_};
}

void FrameReader::Commit(std::size_t count) noexcept {
    end_ += count;
}

void FrameReader::Feed(const std::uint8_t* bytes, std::size_t count) {
    if (count == 0) {
        return;
    }
    auto tail = WritableTail(count);
    std::memcpy(tail.data(), bytes, count);
    Commit(count);
}

ReadStatus FrameReader::Next(FrameView& frame) {
    if (error_ != ReadStatus::kNeedMore) {
        return error_;
    }
    const std::size_t available = end_ - begin_;
    if (available < kLengthSize) {
        return ReadStatus::kNeedMore;
    }
    const std::uint8_t* start = buffer_.data() + begin_;
    const std::uint32_t length = GetU32(start);
    // A length can be judged before the header is in: that keeps a liar from making us wait for, or
    // buffer, gigabytes.
    if (length < kHeaderSize) {
        return error_ = ReadStatus::kBadLength;
    }
    if (length - kHeaderSize > static_cast<std::uint32_t>(maxDataLength_)) {
        return error_ = ReadStatus::kTooLarge;
    }
    if (available < kFramePrefixSize) {
        return ReadStatus::kNeedMore;
    }
    TagIPCMessageItem item = DecodeHeader(start + kLengthSize);
    if (item.dataLength < 0 || static_cast<std::uint32_t>(item.dataLength) != length - kHeaderSize) {
        return error_ = ReadStatus::kBadLength;
    }
    const std::size_t total = kLengthSize + length;
    if (available < total) {
        return ReadStatus::kNeedMore;
    }
    item.data = item.dataLength == 0 ? nullptr : const_cast<std::uint8_t*>(start + kFramePrefixSize);
    frame.item = item;
    frame.raw = start;
    frame.rawSize = total;
    begin_ += total;
    if (begin_ == end_) {
        begin_ = end_ = 0;  // the view stays valid: nothing is moved until the next feed
    }
    return ReadStatus::kFrame;
}

}  // namespace qlb::ipc
