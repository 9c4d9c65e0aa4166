// Any line of the spool: reading it never crashes, and a line that reads as a record writes back to a
// line that reads as the same record.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "runtime/telemetry/spool.h"

namespace {

bool Same(const LogInfo& a, const LogInfo& b) {
    return a.eventType == b.eventType && a.eventId == b.eventId && a.extraList == b.extraList &&
           a.attachedFiles == b.attachedFiles && a.occurTime == b.occurTime && a.infoText == b.infoText &&
           a.fields == b.fields && a.extraText == b.extraText;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    LogInfo first;
    if (!qlb::telemetry::ParseRecord(line, first)) {
        return 0;
    }
    std::string written;
    qlb::telemetry::SerializeRecord(first, written);
    if (written.find('\n') != std::string::npos) {
        std::abort();  // a record must stay on one line
    }
    LogInfo second;
    if (!qlb::telemetry::ParseRecord(written, second) || !Same(first, second)) {
        std::abort();
    }
    return 0;
}
