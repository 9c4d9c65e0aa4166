#include "runtime/process/file_info.h"

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"
#include "runtime/process/minisign.h"

DWORD FileInfo::GetSignatureError(const wchar_t* path) {
    if (path == nullptr || *path == L'\0') {
        return win::ERROR_INVALID_PARAMETER;
    }
    return qlb::signing::VerifyFile(qlb::W2U(path), qlb::MachineProfile::Current().trustedKeys);
}

bool FileInfo::VerifyDigitalSignature(const wchar_t* path, bool /*online*/) {
    return GetSignatureError(path) == qlb::signing::kSignatureGood;
}
