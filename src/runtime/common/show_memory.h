#pragma once
// A note of the process's memory use in the log at a named point; it never changes the flow.

#include <cstdint>
#include <optional>

// Logs, at WARN, the label and the resident memory of the process: "<label> memory: <n> KB".
void ShowMemory(const wchar_t* label);

namespace qlb {

// Resident memory of this process in bytes, from /proc/self/statm; nothing when it cannot be read.
std::optional<std::uint64_t> ResidentMemoryBytes();

}  // namespace qlb
