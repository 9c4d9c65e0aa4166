#include "platform/sync/named_mutex.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"

namespace qlb::platform {
namespace fs = std::filesystem;
namespace {

int OpenFile(const fs::path& path) {
    return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
}

int FlockRetry(int fd, int op) {
    int rc;
    do {
        rc = ::flock(fd, op);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

// Held for the duration of one create or open, so that the probe and the shared lock after it are one
// step for every other process.
class Guard {
  public:
    explicit Guard(const fs::path& file) : fd_(OpenFile(file)) {
        if (fd_ >= 0 && FlockRetry(fd_, LOCK_EX) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~Guard() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    bool ok() const { return fd_ >= 0; }

  private:
    int fd_;
};

// True when some handle holds the mutex file open with its shared lock.
bool IsHeld(int fd) {
    if (FlockRetry(fd, LOCK_EX | LOCK_NB) == 0) {
        FlockRetry(fd, LOCK_UN);
        return false;
    }
    return errno == EWOULDBLOCK;
}

}  // namespace

NamedMutexHandle::~NamedMutexHandle() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

NamedMutexSpace::NamedMutexSpace(fs::path runDir) : dir_(std::move(runDir) / "mutex") {}

fs::path NamedMutexSpace::FileOf(const std::wstring& name) const {
    std::wstring safe = name;
    for (auto& c : safe) {
        if (c == L'/') {
            c = L'_';
        }
    }
    return dir_ / DE::UnicodeToANSI(safe);
}

SysResult<std::unique_ptr<NamedMutexHandle>> NamedMutexSpace::Open(const std::wstring& name) const {
    using R = SysResult<std::unique_ptr<NamedMutexHandle>>;
    if (name.empty()) {
        return R::Fail(win::ERROR_INVALID_NAME);
    }
    const fs::path file = FileOf(name);
    std::error_code ec;
    if (!fs::exists(file, ec)) {
        return R::Fail(win::ERROR_FILE_NOT_FOUND);
    }
    Guard guard(file.string() + ".guard");
    if (!guard.ok()) {
        return R::Fail(win::FromErrno(errno));
    }
    const int fd = OpenFile(file);
    if (fd < 0) {
        return R::Fail(win::FromErrno(errno));
    }
    if (!IsHeld(fd) || FlockRetry(fd, LOCK_SH) != 0) {
        ::close(fd);
        return R::Fail(win::ERROR_FILE_NOT_FOUND);
    }
    return R::Ok(std::make_unique<NamedMutexHandle>(fd));
}

SysResult<CreatedMutex> NamedMutexSpace::Create(const std::wstring& name) const {
    using R = SysResult<CreatedMutex>;
    if (name.empty()) {
        return R::Fail(win::ERROR_INVALID_NAME);
    }
    std::error_code ec;
    fs::create_directories(dir_, ec);
    const fs::path file = FileOf(name);
    Guard guard(file.string() + ".guard");
    if (!guard.ok()) {
        return R::Fail(win::FromErrno(errno));
    }
    const int fd = OpenFile(file);
    if (fd < 0) {
        return R::Fail(win::FromErrno(errno));
    }
    const bool existed = IsHeld(fd);
    if (FlockRetry(fd, LOCK_SH) != 0) {
        const int err = errno;
        ::close(fd);
        return R::Fail(win::FromErrno(err));
    }
    CreatedMutex created{std::make_unique<NamedMutexHandle>(fd), existed ? win::ERROR_ALREADY_EXISTS : 0};
    return R::Ok(std::move(created));
}

bool NamedMutexSpace::Exists(const std::wstring& name) const {
    const fs::path file = FileOf(name);
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool held = IsHeld(fd);
    ::close(fd);
    return held;
}

const NamedMutexSpace& MachineMutexes() {
    static const NamedMutexSpace space(MachineProfile::Current().runDir);
    return space;
}

}  // namespace qlb::platform
