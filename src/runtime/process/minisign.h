#pragma once
// Detached signatures in the format of the standard `minisign` tool, checked with OpenSSL (Ed25519,
// BLAKE2b-512). Makers sign a file F with `minisign -S -m F`, which writes F.minisig; machines trust
// the public keys that their profile lists.
//
//   public key file:  "untrusted comment: ..." / base64("Ed" | key id[8] | key[32])
//   signature file:   "untrusted comment: ..." / base64("ED" or "Ed" | key id[8] | signature[64])
//                     "trusted comment: <text>" / base64(global signature over signature | text)
//
// "ED" signs the BLAKE2b-512 digest of the file, "Ed" (legacy) the file itself. The global signature
// binds the trusted comment to the signature and is always checked.

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qlb::signing {

// Windows trust error numbers, handed on as they are (the "signError" of the installer events).
inline constexpr std::uint32_t kSignatureGood = 0;
inline constexpr std::uint32_t TRUST_E_NOSIGNATURE = 0x800B0100;
inline constexpr std::uint32_t TRUST_E_BAD_DIGEST = 0x80096010;
inline constexpr std::uint32_t CERT_E_UNTRUSTEDROOT = 0x800B0109;

using KeyId = std::array<std::uint8_t, 8>;

struct PublicKey {
    KeyId keyId{};
    std::array<std::uint8_t, 32> key{};
};

struct Signature {
    bool prehashed = true;  // "ED": the signed message is the BLAKE2b-512 digest of the file
    KeyId keyId{};
    std::array<std::uint8_t, 64> signature{};
    std::string trustedComment;  // the text after "trusted comment: "
    std::array<std::uint8_t, 64> globalSignature{};
};

// Strict base64 (standard alphabet, '=' padding only at the end); nullopt on anything else.
std::optional<std::vector<std::uint8_t>> DecodeBase64(std::string_view text);

// Parse the text of a public key file (the comment line is optional) or of a signature file.
std::optional<PublicKey> ParsePublicKey(std::string_view text);
std::optional<Signature> ParseSignature(std::string_view text);

// Whether `signature` is a good signature of `content` by `key`: the key ids agree, the signature
// over the content (or its digest) and the global signature both verify.
bool VerifyContent(std::string_view content, const Signature& signature, const PublicKey& key);

// Checks the file open on `fd` (read from its start) against the signature file `signaturePath` and
// the public key files `trustedKeys`. Returns kSignatureGood, TRUST_E_NOSIGNATURE (no or unreadable
// signature file), CERT_E_UNTRUSTEDROOT (no trusted key has the signature's key id) or
// TRUST_E_BAD_DIGEST (the file or the trusted comment was altered, or the file can't be read).
std::uint32_t VerifyOpenFile(int fd, const std::filesystem::path& signaturePath,
                             const std::vector<std::filesystem::path>& trustedKeys);

// The same for the file at `path`, with its signature in path + ".minisig". A missing file gives
// ERROR_FILE_NOT_FOUND.
std::uint32_t VerifyFile(const std::filesystem::path& path,
                         const std::vector<std::filesystem::path>& trustedKeys);

}  // namespace qlb::signing
