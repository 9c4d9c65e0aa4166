#include "runtime/process/verified_module.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <utility>

#include "runtime/common/machine_profile.h"
#include "runtime/common/win_error.h"
#include "runtime/process/minisign.h"

namespace qlb::process {

VerifiedModule::~VerifiedModule() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

VerifiedModule::VerifiedModule(VerifiedModule&& other) noexcept
    : signError(other.signError), fd_(std::exchange(other.fd_, -1)) {}

VerifiedModule& VerifiedModule::operator=(VerifiedModule&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        signError = other.signError;
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

// The loader knows a loaded object by every name it was opened under, and an object may stay mapped
// after dlclose (unique symbols make it undeletable). A name "/proc/self/fd/N" that served an earlier
// load would therefore hand back that earlier object instead of the checked file. Each load takes a
// descriptor number whose name no loaded object carries.
void* VerifiedModule::Load() {
    if (fd_ < 0 || signError != signing::kSignatureGood) {
        return nullptr;
    }
    static std::mutex loadMutex;
    std::lock_guard lock(loadMutex);
    constexpr int kFirst = 100;
    constexpr int kLast = kFirst + 4096;
    for (int candidate = kFirst; candidate < kLast; ++candidate) {
        if (::fcntl(candidate, F_GETFD) != -1) {
            continue;  // in use by someone else
        }
        const std::string name = "/proc/self/fd/" + std::to_string(candidate);
        // With the descriptor closed, only an object loaded earlier under this name can answer.
        if (void* stale = ::dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
            ::dlclose(stale);
            continue;
        }
        const int dup = ::fcntl(fd_, F_DUPFD_CLOEXEC, candidate);
        if (dup < 0) {
            return nullptr;
        }
        if (dup != candidate) {
            ::close(dup);  // another thread took the number meanwhile
            continue;
        }
        void* handle = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
        ::close(dup);
        return handle;
    }
    return nullptr;
}

VerifiedModule OpenVerifiedModule(const std::filesystem::path& path) {
    VerifiedModule module;
    module.fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (module.fd_ < 0) {
        module.signError = errno == ENOENT ? win::ERROR_FILE_NOT_FOUND : win::FromErrno(errno);
        return module;
    }
    auto sigPath = path;
    sigPath += ".minisig";
    module.signError = signing::VerifyOpenFile(module.fd_, sigPath, MachineProfile::Current().trustedKeys);
    return module;
}

}  // namespace qlb::process
