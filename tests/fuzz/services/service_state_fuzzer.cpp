// Service state records: any text parses to nothing or to a record that survives a write and a read.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/services/service_state_store.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto record = qlb::platform::ParseStateRecord(text);
    if (!record) {
        return 0;
    }
    const auto again = qlb::platform::ParseStateRecord(qlb::platform::FormatStateRecord(*record));
    if (!again || again->pid != record->pid || again->processStartTime != record->processStartTime ||
        again->status.dwCurrentState != record->status.dwCurrentState ||
        again->status.dwControlsAccepted != record->status.dwControlsAccepted ||
        again->status.dwCheckPoint != record->status.dwCheckPoint) {
        std::abort();
    }
    return 0;
}
