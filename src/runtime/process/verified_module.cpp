#include "runtime/process/verified_module.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
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

void* VerifiedModule::Load() {
    if (fd_ < 0 || signError != signing::kSignatureGood) {
        return nullptr;
    }
    const std::string self = "/proc/self/fd/" + std::to_string(fd_);
    return ::dlopen(self.c_str(), RTLD_NOW | RTLD_LOCAL);
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
