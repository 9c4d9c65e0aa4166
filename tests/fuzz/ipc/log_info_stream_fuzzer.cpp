// The typed record message as the service receives it: any payload through IPCServerProc. A record
// that was read whole must survive a write-then-read round trip unchanged.

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "messageservice/ipc_data_io.h"
#include "messageservice/ipc_server_proc.h"
#include "messageservice/registry_requests.h"
#include "runtime/telemetry/event_data_report.h"

namespace {

bool Same(const LogInfo& a, const LogInfo& b) {
    return a.eventType == b.eventType && a.eventId == b.eventId && a.extraList == b.extraList &&
           a.attachedFiles == b.attachedFiles && a.occurTime == b.occurTime && a.infoText == b.infoText &&
           a.fields == b.fields && a.extraText == b.extraText;
}

struct Sink {
    void Receive(LogInfo& info) { received = info; }
    LogInfo received;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> payload(data, data + size);
    TagIPCMessageItem item;
    item.data = payload.empty() ? nullptr : payload.data();
    item.dataLength = static_cast<std::int32_t>(payload.size());

    Sink sink;
    IPCServerProc<Sink, void, LogInfo&> proc(0x3000E, &sink, &Sink::Receive);
    proc.OnIPCMessage(item);

    // The registry edit record shares the fixed-size rule: decode whatever 788 bytes come.
    if (size == qlb::messageservice::kRegEditRecordSize) {
        qlb::messageservice::DecodeRegEditRecord(data);
    }

    auto encoded = EncodeLogInfoPayload(sink.received);
    TagIPCMessageItem again;
    again.data = encoded.data();
    again.dataLength = static_cast<std::int32_t>(encoded.size());
    IPCDataIO stream(&again, true, false);
    unsigned count = 0;
    LogInfo back;
    if (stream.ReadUInt32(&count) != 4 || count != 1 || !ReadStreamLogInfo(stream, back) ||
        !Same(back, sink.received)) {
        std::abort();
    }
    return 0;
}
