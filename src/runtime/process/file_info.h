#pragma once
// Signature checks of the product's files against the keys the machine trusts (the profile's
// trustedKeys), in the format of minisign.h.

#include "runtime/common/win_types.h"

class FileInfo {
  public:
    // True when `path` carries a good signature by a trusted key. `online` asked for a revocation
    // check on the original platform; a detached signature has no revocation list, so it changes
    // nothing here.
    static bool VerifyDigitalSignature(const wchar_t* path, bool online);

    // The trust error number of the same check: 0 good, 0x800B0100 no signature, 0x80096010 bad
    // digest, 0x800B0109 untrusted key, ERROR_FILE_NOT_FOUND when there is no such file.
    static DWORD GetSignatureError(const wchar_t* path);
};
