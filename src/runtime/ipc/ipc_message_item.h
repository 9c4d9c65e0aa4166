#pragma once
// The message record carried by the IPC channel. It does not own `data`: a receiver may read it only
// while its callback runs, and PostIPCMessage copies it before it returns.

#include <cstdint>

struct TagIPCMessageItem {
    std::int32_t toModuleId = 0;  // 0: every other module
    std::int32_t fromModuleId = 0;
    std::int32_t messageId = 0;
    std::int32_t reservedA = 0;
    std::int32_t reservedB = 0;
    std::int32_t syncMessageId = 0;  // correlation number of a synchronous request, else 0
    std::int32_t dataLength = 0;
    unsigned char* data = nullptr;
    std::uint8_t reservedFlag = 0;
};
