#include "runtime/common/show_memory.h"

#include <unistd.h>

#include <fstream>

#include "runtime/common/logging.h"
#include "runtime/common/strings.h"

namespace qlb {

std::optional<std::uint64_t> ResidentMemoryBytes() {
    std::ifstream statm("/proc/self/statm");
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    if (!(statm >> size >> resident)) {
        return std::nullopt;
    }
    const long page = sysconf(_SC_PAGESIZE);
    return resident * static_cast<std::uint64_t>(page > 0 ? page : 4096);
}

}  // namespace qlb

void ShowMemory(const wchar_t* label) {
    const std::string text = label ? qlb::W2U(label) : std::string();
    if (const auto bytes = qlb::ResidentMemoryBytes()) {
        QLOG_WARN(text << " memory: " << (*bytes / 1024) << " KB");
    } else {
        QLOG_WARN(text << " memory: unknown");
    }
}
