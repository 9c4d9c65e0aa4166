#include "platform/services/service_state_store.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "runtime/common/strings.h"

namespace qlb::platform {
namespace fs = std::filesystem;

ServiceStateStore::ServiceStateStore(fs::path runDir) : dir_(std::move(runDir) / "services") {}

fs::path ServiceStateStore::StatusFile(const std::wstring& name) const {
    return dir_ / (DE::UnicodeToANSI(ToLowerAscii(name)) + ".status");
}
fs::path ServiceStateStore::LockFile(const std::wstring& name) const {
    return dir_ / (DE::UnicodeToANSI(ToLowerAscii(name)) + ".lock");
}
fs::path ServiceStateStore::SocketFile(const std::wstring& name) const {
    return dir_ / (DE::UnicodeToANSI(ToLowerAscii(name)) + ".sock");
}

SysStatus ServiceStateStore::EnsureDirectory() const {
    std::error_code ec;
    fs::create_directories(dir_, ec);
    if (ec) {
        return SysStatus::Fail(win::FromErrno(ec.value()));
    }
    return SysStatus::Ok();
}

std::optional<ServiceStateRecord> ServiceStateStore::Read(const std::wstring& name) const {
    std::ifstream in(StatusFile(name));
    if (!in) {
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    return ParseStateRecord(text.str());
}

SysStatus ServiceStateStore::Write(const std::wstring& name, const ServiceStateRecord& record) const {
    if (auto st = EnsureDirectory(); !st) {
        return st;
    }
    const fs::path target = StatusFile(name);
    const fs::path temp = target.string() + ".tmp" + std::to_string(::getpid());
    const std::string text = FormatStateRecord(record);
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return SysStatus::Fail(win::FromErrno(errno));
    }
    const ssize_t written = ::write(fd, text.data(), text.size());
    const int writeErr = errno;
    ::close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        ::unlink(temp.c_str());
        return SysStatus::Fail(written < 0 ? win::FromErrno(writeErr) : win::ERROR_WRITE_FAULT);
    }
    if (::rename(temp.c_str(), target.c_str()) != 0) {
        const int err = errno;
        ::unlink(temp.c_str());
        return SysStatus::Fail(win::FromErrno(err));
    }
    return SysStatus::Ok();
}

void ServiceStateStore::Remove(const std::wstring& name) const {
    std::error_code ec;
    fs::remove(StatusFile(name), ec);
}

namespace {

bool OtherThreadsRemain(std::int64_t pid) {
    std::error_code ec;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
        if (task.path().filename() != std::to_string(pid)) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<std::uint64_t> ProcessStartTime(std::int64_t pid) {
    if (pid <= 0) {
        return std::nullopt;
    }
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!in || !std::getline(in, line)) {
        return std::nullopt;
    }
    // The command name may hold blanks and parentheses; the fields follow the last ')'.
    const auto close = line.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(line.substr(close + 1));
    std::string state;
    fields >> state;
    // A killed process shows its first thread as a zombie while the others are still on their way
    // out, holding the process's files (its named mutex among them); it has ended only once they are
    // gone.
    if (state == "X" || (state == "Z" && !OtherThreadsRemain(pid))) {
        return std::nullopt;
    }
    // Fields 4..21 lie between the state (3) and the start time (22).
    std::string skip;
    for (int i = 4; i <= 21; ++i) {
        fields >> skip;
    }
    std::uint64_t start = 0;
    if (!(fields >> start)) {
        return std::nullopt;
    }
    return start;
}

bool IsRecordProcessAlive(const ServiceStateRecord& record) {
    const auto start = ProcessStartTime(record.pid);
    return start && *start == record.processStartTime;
}

std::string FormatStateRecord(const ServiceStateRecord& r) {
    nlohmann::json j = {
        {"pid", r.pid},
        {"processStartTime", r.processStartTime},
        {"serviceType", r.status.dwServiceType},
        {"currentState", r.status.dwCurrentState},
        {"controlsAccepted", r.status.dwControlsAccepted},
        {"win32ExitCode", r.status.dwWin32ExitCode},
        {"serviceSpecificExitCode", r.status.dwServiceSpecificExitCode},
        {"checkPoint", r.status.dwCheckPoint},
        {"waitHint", r.status.dwWaitHint},
    };
    return j.dump() + "\n";
}

std::optional<ServiceStateRecord> ParseStateRecord(const std::string& text) {
    const auto j = nlohmann::json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        return std::nullopt;
    }
    ServiceStateRecord r;
    const auto number = [&j](const char* key, auto& out) {
        const auto it = j.find(key);
        if (it == j.end() || !it->is_number_integer()) {
            return false;
        }
        using T = std::remove_reference_t<decltype(out)>;
        if (it->is_number_unsigned()) {
            out = static_cast<T>(it->template get<std::uint64_t>());
        } else {
            out = static_cast<T>(it->template get<std::int64_t>());
        }
        return true;
    };
    const bool ok = number("pid", r.pid) && number("processStartTime", r.processStartTime) &&
                    number("serviceType", r.status.dwServiceType) &&
                    number("currentState", r.status.dwCurrentState) &&
                    number("controlsAccepted", r.status.dwControlsAccepted) &&
                    number("win32ExitCode", r.status.dwWin32ExitCode) &&
                    number("serviceSpecificExitCode", r.status.dwServiceSpecificExitCode) &&
                    number("checkPoint", r.status.dwCheckPoint) && number("waitHint", r.status.dwWaitHint);
    if (!ok) {
        return std::nullopt;
    }
    return r;
}

SysResult<FileLock> FileLock::Acquire(const fs::path& file) {
    FileLock lock;
    lock.fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock.fd_ < 0) {
        return SysResult<FileLock>::Fail(win::FromErrno(errno));
    }
    int rc;
    do {
        rc = ::flock(lock.fd_, LOCK_EX);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        return SysResult<FileLock>::Fail(win::FromErrno(errno));
    }
    return SysResult<FileLock>{std::move(lock), win::ERROR_SUCCESS};
}

FileLock::FileLock(FileLock&& other) noexcept : fd_(other.fd_) {
    other.fd_ = -1;
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

FileLock::~FileLock() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

}  // namespace qlb::platform
