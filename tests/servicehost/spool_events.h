#pragma once
// The telemetry records a test machine spooled, in the order they were written.

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/files.h"

namespace qlb::servicehost::testing {

// The records of one event, or all of them for an empty code.
inline std::vector<nlohmann::json> SpooledEvents(const std::filesystem::path& appData,
                                                 const std::string& code = "") {
    std::vector<nlohmann::json> records;
    for (const auto& line : qlb::testing::ReadLines(appData / "telemetry" / "events.jsonl")) {
        auto j = nlohmann::json::parse(line, nullptr, false);
        if (j.is_object() && (code.empty() || j.value("eventId", "") == code)) {
            records.push_back(j);
        }
    }
    return records;
}

}  // namespace qlb::servicehost::testing
