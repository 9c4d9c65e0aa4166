#include "runtime/telemetry/spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include <nlohmann/json.hpp>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"

namespace qlb::telemetry {

namespace {

using ordered_json = nlohmann::ordered_json;

bool WriteAll(int fd, const char* data, size_t size, int& error) {
    // O_APPEND on a regular file writes the whole buffer at once; a short count only comes from a full
    // disk or a signal, and then the line is already broken.
    const ssize_t written = ::write(fd, data, size);
    if (written == static_cast<ssize_t>(size)) {
        return true;
    }
    error = written < 0 ? errno : ENOSPC;
    if (written > 0) {
        // Ends the broken line so that the next record starts a line of its own.
        [[maybe_unused]] const ssize_t ignored = ::write(fd, "\n", 1);
    }
    return false;
}

std::vector<std::string> ReadList(const ordered_json& doc, const char* key) {
    std::vector<std::string> out;
    if (const auto it = doc.find(key); it != doc.end() && it->is_array()) {
        for (const auto& v : *it) {
            if (v.is_string()) {
                out.push_back(v.get<std::string>());
            }
        }
    }
    return out;
}

std::string ReadText(const ordered_json& doc, const char* key) {
    const auto it = doc.find(key);
    return it != doc.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

void SerializeRecord(const LogInfo& info, std::string& out) {
    ordered_json fields = ordered_json::object();
    for (const auto& [number, text] : info.fields) {
        fields[std::to_string(number)] = text;
    }
    const ordered_json doc = {
        {"eventType", info.eventType},         {"eventId", info.eventId},     {"extraList", info.extraList},
        {"attachedFiles", info.attachedFiles}, {"occurTime", info.occurTime}, {"infoText", info.infoText},
        {"fields", std::move(fields)},         {"extraText", info.extraText},
    };
    out = doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool ParseRecord(const std::string& line, LogInfo& info) {
    const auto doc = ordered_json::parse(line, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        return false;
    }
    info = LogInfo{};
    if (const auto it = doc.find("eventType"); it != doc.end() && it->is_number_unsigned()) {
        info.eventType = it->get<std::uint32_t>();
    }
    info.eventId = ReadText(doc, "eventId");
    info.extraList = ReadList(doc, "extraList");
    info.attachedFiles = ReadList(doc, "attachedFiles");
    info.occurTime = ReadText(doc, "occurTime");
    info.infoText = ReadText(doc, "infoText");
    if (const auto it = doc.find("fields"); it != doc.end() && it->is_object()) {
        for (const auto& [key, value] : it->items()) {
            char* end = nullptr;
            errno = 0;
            const long number = std::strtol(key.c_str(), &end, 10);
            if (errno == 0 && end && *end == '\0' && !key.empty() && value.is_string() &&
                number >= INT32_MIN && number <= INT32_MAX) {
                info.fields[static_cast<std::int32_t>(number)] = value.get<std::string>();
            }
        }
    }
    info.extraText = ReadText(doc, "extraText");
    return true;
}

std::filesystem::path TelemetryDir() {
    return MachineProfile::Current().appData / "telemetry";
}

std::filesystem::path SpoolPath() {
    return TelemetryDir() / "events.jsonl";
}

Spool::~Spool() {
    std::lock_guard lock(mutex_);
    CloseLocked();
}

void Spool::CloseLocked() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool Spool::OpenLocked(const std::filesystem::path& path) {
    struct stat current {};
    if (fd_ >= 0 && path == path_ && ::stat(path.c_str(), &current) == 0 && current.st_dev == dev_ &&
        current.st_ino == ino_) {
        return true;
    }
    // First use, another profile, or the file was removed or replaced under us.
    CloseLocked();
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        const int error = errno;
        QLOG_ERROR("telemetry spool cannot be opened: " << path.string() << ", " << std::strerror(error));
        return false;
    }
    struct stat opened {};
    if (::fstat(fd, &opened) != 0) {
        ::close(fd);
        return false;
    }
    fd_ = fd;
    path_ = path;
    dev_ = opened.st_dev;
    ino_ = opened.st_ino;
    return true;
}

bool Spool::Append(const std::filesystem::path& path, const LogInfo& info) {
    std::lock_guard lock(mutex_);
    SerializeRecord(info, buffer_);
    buffer_ += '\n';
    if (!OpenLocked(path)) {
        return false;
    }
    int error = 0;
    if (!WriteAll(fd_, buffer_.data(), buffer_.size(), error)) {
        QLOG_ERROR("telemetry record " << info.eventId << " not written to " << path.string() << ": "
                                       << std::strerror(error));
        return false;
    }
    return true;
}

void Spool::Sync() {
    std::lock_guard lock(mutex_);
    if (fd_ >= 0) {
        ::fdatasync(fd_);
    }
}

}  // namespace qlb::telemetry
