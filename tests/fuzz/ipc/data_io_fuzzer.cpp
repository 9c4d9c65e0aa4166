// IPCDataIO reads over any payload, in an order of operations that the input chooses.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "messageservice/ipc_data_io.h"
#include "runtime/telemetry/event_data_report.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::uint8_t plan = data[0];
    std::vector<std::uint8_t> payload(data + 1, data + size);
    TagIPCMessageItem item;
    item.data = payload.data();
    item.dataLength = static_cast<std::int32_t>(payload.size());
    IPCDataIO stream(&item, true, false);
    for (int step = 0; step < 8; ++step) {
        const unsigned before = stream.Position();
        switch ((plan >> (step % 4 * 2)) & 3) {
            case 0: {
                unsigned value = 0;
                stream.ReadUInt32(&value);
                break;
            }
            case 1: {
                unsigned char value = 0;
                stream.ReadUInt8(&value);
                break;
            }
            case 2: {
                std::string text;
                ReadStreamString(stream, text);
                std::vector<std::string> list;
                ReadStreamStringList(stream, list);
                break;
            }
            default: {
                LogInfo info;
                ReadStreamLogInfo(stream, info);
                break;
            }
        }
        if (stream.Position() < before || stream.Position() > payload.size()) {
            std::abort();
        }
    }
    if (item.data != payload.data()) {
        std::abort();  // a reader never touches the item
    }
    return 0;
}
