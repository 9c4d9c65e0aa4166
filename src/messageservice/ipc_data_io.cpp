#include "messageservice/ipc_data_io.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "runtime/telemetry/event_data_report.h"

namespace {

constexpr std::int64_t kStreamLimit = 0x80000000LL;
// Strings are read in pieces of this size, so that a length that promises more than the stream holds
// costs no more memory than the stream itself.
constexpr unsigned kStringPiece = 4096;

// A copy that refuses instead of overrunning: false when either side is missing or the destination is
// too small.
bool BoundedCopy(void* destination, std::int64_t destinationSize, const void* source, unsigned count) {
    if (count == 0) {
        return destination != nullptr && source != nullptr;
    }
    if (destination == nullptr || source == nullptr || destinationSize < static_cast<std::int64_t>(count)) {
        return false;
    }
    std::memcpy(destination, source, count);
    return true;
}

}  // namespace

IPCDataIO::IPCDataIO() : item(new TagIPCMessageItem), attached(false), owner(true) {}

IPCDataIO::IPCDataIO(TagIPCMessageItem* streamItem, bool isAttached, bool isOwner, unsigned startPosition)
    : item(streamItem), attached(isAttached), owner(isOwner), position(startPosition) {}

IPCDataIO::~IPCDataIO() {
    if (attached && !owner) {
        return;
    }
    if (item != nullptr) {
        ReleaseStreamData(*item);
        if (owner) {
            delete item;
            item = nullptr;
        }
    }
}

void ReleaseStreamData(TagIPCMessageItem& streamItem) noexcept {
    delete[] streamItem.data;
    streamItem.data = nullptr;
    streamItem.dataLength = 0;
}

unsigned IPCDataIO::Reserve(unsigned count) {
    if (item == nullptr) {
        return 0;
    }
    const auto wanted = static_cast<std::int32_t>(position + count);
    if (count == 0 || wanted <= item->dataLength) {
        return count;
    }
    const std::int32_t needed = wanted;
    if (needed < 0 || static_cast<std::int64_t>(needed) > kStreamLimit - blockSize) {
        return 0;
    }
    const std::int64_t rounded = static_cast<std::int64_t>(blockSize) - 1 + needed;
    const auto capacity = static_cast<std::int32_t>(rounded - rounded % blockSize);
    if (capacity < 0) {
        return 0;
    }
    auto* block = new (std::nothrow) unsigned char[static_cast<std::size_t>(capacity)]();
    if (block == nullptr) {
        return 0;
    }
    if (item->data != nullptr) {
        if (!BoundedCopy(block, capacity, item->data, position)) {
            delete[] block;
            return count;
        }
        delete[] item->data;
    }
    item->data = block;
    item->dataLength = capacity;
    return count;
}

unsigned IPCDataIO::WriteBytes(const void* source, unsigned count) {
    if (source == nullptr || item == nullptr) {
        return 0;
    }
    Reserve(count);
    const std::int64_t room = static_cast<std::int64_t>(item->dataLength) - position;
    if (BoundedCopy(item->data == nullptr ? nullptr : item->data + position, room, source, count)) {
        position += count;
    }
    return count;
}

unsigned IPCDataIO::WriteUInt32(unsigned value) {
    const unsigned char bytes[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                                    static_cast<unsigned char>(value >> 16),
                                    static_cast<unsigned char>(value >> 24)};
    return WriteBytes(bytes, sizeof(bytes));
}

unsigned IPCDataIO::WriteUInt8(unsigned char value) {
    return WriteBytes(&value, 1);
}

unsigned IPCDataIO::ReadBytes(void* target, unsigned count) {
    if (target == nullptr || item == nullptr) {
        return 0;
    }
    const std::int64_t remaining = static_cast<std::int64_t>(item->dataLength) - position;
    if (remaining < static_cast<std::int64_t>(count)) {
        return 0;
    }
    if (count == 0) {
        return 0;
    }
    if (BoundedCopy(target, count, item->data == nullptr ? nullptr : item->data + position, count)) {
        position += count;
    }
    return count;
}

unsigned IPCDataIO::ReadUInt32(unsigned* target) {
    if (target == nullptr) {
        return 0;
    }
    unsigned char bytes[4] = {};
    const unsigned got = ReadBytes(bytes, sizeof(bytes));
    if (got == sizeof(bytes)) {
        *target = static_cast<unsigned>(bytes[0]) | (static_cast<unsigned>(bytes[1]) << 8) |
                  (static_cast<unsigned>(bytes[2]) << 16) | (static_cast<unsigned>(bytes[3]) << 24);
    }
    return got;
}

unsigned IPCDataIO::ReadUInt8(unsigned char* target) {
    return ReadBytes(target, 1);
}

unsigned WriteStreamString(IIPCDataIO& stream, const std::string& text) {
    const auto length = static_cast<unsigned>(text.size());
    unsigned written = stream.WriteUInt32(length);
    if (length != 0) {
        written += stream.WriteBytes(text.data(), length);
    }
    return written;
}

bool ReadStreamString(IIPCDataIO& stream, std::string& text) {
    text.clear();
    unsigned length = 0;
    if (stream.ReadUInt32(&length) != 4) {
        return false;
    }
    // A length with the top bit set sizes the string and reads nothing; here the size is empty, so that
    // such a length never asks for gigabytes.
    if (length >= 0x80000000u) {
        return true;
    }
    char piece[kStringPiece];
    while (length > 0) {
        const unsigned count = std::min(length, kStringPiece);
        if (stream.ReadBytes(piece, count) != count) {
            text.clear();
            return false;
        }
        text.append(piece, count);
        length -= count;
    }
    return true;
}

unsigned WriteStreamStringList(IIPCDataIO& stream, const std::vector<std::string>& list) {
    unsigned written = stream.WriteUInt32(static_cast<unsigned>(list.size()));
    for (const auto& text : list) {
        written += WriteStreamString(stream, text);
    }
    return written;
}

bool ReadStreamStringList(IIPCDataIO& stream, std::vector<std::string>& list) {
    list.clear();
    unsigned count = 0;
    if (stream.ReadUInt32(&count) != 4) {
        return false;
    }
    for (unsigned i = 0; i < count; ++i) {
        std::string text;
        if (!ReadStreamString(stream, text)) {
            return false;  // a count that promises more than the stream holds stops here
        }
        list.push_back(std::move(text));
    }
    return true;
}

void WriteStreamLogInfo(IIPCDataIO& stream, const LogInfo& info) {
    stream.WriteUInt32(info.eventType);
    WriteStreamString(stream, info.eventId);
    WriteStreamStringList(stream, info.extraList);
    WriteStreamStringList(stream, info.attachedFiles);
    WriteStreamString(stream, info.occurTime);
    WriteStreamString(stream, info.infoText);
    stream.WriteUInt32(static_cast<unsigned>(info.fields.size()));
    for (const auto& [key, value] : info.fields) {
        stream.WriteUInt32(static_cast<unsigned>(key));
        WriteStreamString(stream, value);
    }
    WriteStreamString(stream, info.extraText);
}

bool ReadStreamLogInfo(IIPCDataIO& stream, LogInfo& info) {
    unsigned eventType = info.eventType;
    bool ok = stream.ReadUInt32(&eventType) == 4;
    info.eventType = eventType;
    ok = ReadStreamString(stream, info.eventId) && ok;
    ok = ReadStreamStringList(stream, info.extraList) && ok;
    ok = ReadStreamStringList(stream, info.attachedFiles) && ok;
    ok = ReadStreamString(stream, info.occurTime) && ok;
    ok = ReadStreamString(stream, info.infoText) && ok;
    info.fields.clear();
    unsigned count = 0;
    if (stream.ReadUInt32(&count) == 4) {
        for (unsigned i = 0; i < count; ++i) {
            unsigned key = 0;
            std::string value;
            if (stream.ReadUInt32(&key) != 4 || !ReadStreamString(stream, value)) {
                ok = false;
                break;
            }
            info.fields[static_cast<std::int32_t>(key)] = std::move(value);
        }
    } else {
        ok = false;
    }
    ok = ReadStreamString(stream, info.extraText) && ok;
    return ok;
}

std::vector<std::uint8_t> EncodeLogInfoPayload(const LogInfo& info) {
    TagIPCMessageItem item;
    IPCDataIO stream(&item, false, false);
    stream.WriteUInt32(1);
    WriteStreamLogInfo(stream, info);
    std::vector<std::uint8_t> payload(item.data, item.data + item.dataLength);
    return payload;  // the stream releases its buffer
}
