#pragma once
// Loading a shared object only after its signature was found good, from the same open file that was
// checked: a module replaced between the check and the load is never mapped.

#include <filesystem>
#include <string>

#include "runtime/common/win_types.h"

namespace qlb::process {

class VerifiedModule {
  public:
    VerifiedModule() = default;
    ~VerifiedModule();
    VerifiedModule(VerifiedModule&& other) noexcept;
    VerifiedModule& operator=(VerifiedModule&& other) noexcept;
    VerifiedModule(const VerifiedModule&) = delete;
    VerifiedModule& operator=(const VerifiedModule&) = delete;

    // 0 when the signature is good; else the trust error number, or ERROR_FILE_NOT_FOUND.
    DWORD signError = 0;

    // dlopen of the checked file (RTLD_NOW | RTLD_LOCAL); null when the check failed or the loader
    // refused it (dlerror() then says why). The handle belongs to the caller.
    void* Load();

  private:
    friend VerifiedModule OpenVerifiedModule(const std::filesystem::path& path);
    int fd_ = -1;
};

// Opens `path` and checks it against path + ".minisig" and the profile's trusted keys.
VerifiedModule OpenVerifiedModule(const std::filesystem::path& path);

}  // namespace qlb::process
