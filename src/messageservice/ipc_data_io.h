#pragma once
// The payload stream of typed messages. IPCDataIO reads and writes one TagIPCMessageItem in place:
// writing grows `data` in blocks of 64 bytes and leaves `dataLength` at the capacity, not at the bytes
// written, so a reader goes by the stream's own lengths.
//
// Layouts, little-endian, with no padding and no tags: integers as their bytes; a string as a 32-bit
// length and that many bytes; a list of strings as a 32-bit count and the strings; a LogInfo as its
// fields in declaration order, the map as a count and (signed key, string) pairs.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "runtime/ipc/ipc_message_item.h"

struct LogInfo;

class IIPCDataIO {
  public:
    virtual unsigned Reserve(unsigned count) = 0;
    virtual unsigned WriteUInt32(unsigned value) = 0;
    virtual unsigned WriteUInt8(unsigned char value) = 0;
    virtual unsigned WriteBytes(const void* source, unsigned count) = 0;
    virtual unsigned ReadUInt32(unsigned* target) = 0;
    virtual unsigned ReadUInt8(unsigned char* target) = 0;
    virtual unsigned ReadBytes(void* target, unsigned count) = 0;

  protected:
    // Streams are never destroyed through the interface.
    ~IIPCDataIO() = default;
};

class IPCDataIO final : public IIPCDataIO {
  public:
    // A writer over an item of its own, released with the stream.
    IPCDataIO();
    // A stream over `item`. attached and not owner: the stream never releases anything (the way the
    // service reads). Otherwise the destructor releases `item->data`, and with owner the item too.
    IPCDataIO(TagIPCMessageItem* item, bool attached, bool owner, unsigned position = 0);
    ~IPCDataIO();
    IPCDataIO(const IPCDataIO&) = delete;
    IPCDataIO& operator=(const IPCDataIO&) = delete;

    unsigned Reserve(unsigned count) override;
    unsigned WriteUInt32(unsigned value) override;
    unsigned WriteUInt8(unsigned char value) override;
    unsigned WriteBytes(const void* source, unsigned count) override;
    unsigned ReadUInt32(unsigned* target) override;
    unsigned ReadUInt8(unsigned char* target) override;
    unsigned ReadBytes(void* target, unsigned count) override;

    unsigned Position() const noexcept { return position; }
    TagIPCMessageItem* Item() const noexcept { return item; }

    // Fields, in this order.
    std::uint32_t blockSize = 64;
    TagIPCMessageItem* item = nullptr;
    bool attached = false;
    bool owner = false;
    std::uint32_t position = 0;
};

// Releases a payload that an IPCDataIO writer allocated (for writers that keep the item's data past
// the stream).
void ReleaseStreamData(TagIPCMessageItem& item) noexcept;

// Values in the stream. A read that runs out of bytes gives false and leaves the value empty; lists
// and maps keep what was read before the failure and stop there.
unsigned WriteStreamString(IIPCDataIO& stream, const std::string& text);
bool ReadStreamString(IIPCDataIO& stream, std::string& text);
unsigned WriteStreamStringList(IIPCDataIO& stream, const std::vector<std::string>& list);
bool ReadStreamStringList(IIPCDataIO& stream, std::vector<std::string>& list);
void WriteStreamLogInfo(IIPCDataIO& stream, const LogInfo& info);
bool ReadStreamLogInfo(IIPCDataIO& stream, LogInfo& info);

// The payload of the typed record message: argument count 1, then the record, as a peer writes it
// (the length is the stream's capacity, a multiple of 64).
std::vector<std::uint8_t> EncodeLogInfoPayload(const LogInfo& info);
