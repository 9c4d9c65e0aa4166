// The public key and signature file parsers on arbitrary bytes.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "runtime/process/minisign.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)qlb::signing::ParsePublicKey(text);
    (void)qlb::signing::DecodeBase64(text);
    if (auto signature = qlb::signing::ParseSignature(text)) {
        // A parsed signature is checked against an all-zero key without harm.
        (void)qlb::signing::VerifyContent("content", *signature,
                                          qlb::signing::PublicKey{signature->keyId, {}});
    }
    return 0;
}
