#include "privacy_pack.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "consent/privacy_key.h"
#include "consent/table_cipher.h"

namespace qlb::privacy {
namespace {

struct CipherCtxDeleter {
    void operator()(EVP_CIPHER_CTX* ctx) const noexcept { EVP_CIPHER_CTX_free(ctx); }
};

struct DigestCtxDeleter {
    void operator()(EVP_MD_CTX* ctx) const noexcept { EVP_MD_CTX_free(ctx); }
};

// SHA-256 of label, counter and data; all zero if OpenSSL fails, which only weakens the filler.
std::array<std::uint8_t, SHA256_DIGEST_LENGTH> Sha256(std::string_view label, std::string_view data,
                                                      std::uint32_t counter) {
    std::array<std::uint8_t, SHA256_DIGEST_LENGTH> digest{};
    std::unique_ptr<EVP_MD_CTX, DigestCtxDeleter> ctx(EVP_MD_CTX_new());
    unsigned int length = 0;
    if (ctx && EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) == 1 &&
        EVP_DigestUpdate(ctx.get(), label.data(), label.size()) == 1 &&
        EVP_DigestUpdate(ctx.get(), &counter, sizeof counter) == 1 &&
        EVP_DigestUpdate(ctx.get(), data.data(), data.size()) == 1) {
        EVP_DigestFinal_ex(ctx.get(), digest.data(), &length);
    }
    return digest;
}

std::optional<std::string> Assemble(std::string_view plain, const Iv& iv, std::string header) {
    auto cipher = EncryptCbc(iv, plain);
    if (!cipher) {
        return std::nullopt;
    }
    std::memcpy(header.data() + kPrivacyIvOffset, iv.data(), iv.size());
    return header + *cipher;
}

}  // namespace

std::optional<std::string> EncryptCbc(const Iv& iv, std::string_view plain) {
    std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter> ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr,
                                   qlb::consent::kPrivacyDocumentKey.data(), iv.data()) != 1) {
        return std::nullopt;
    }
    std::string out(plain.size() + kCipherBlockSize, '\0');
    int written = 0;
    int tail = 0;
    if (EVP_EncryptUpdate(ctx.get(), reinterpret_cast<unsigned char*>(out.data()), &written,
                          reinterpret_cast<const unsigned char*>(plain.data()),
                          static_cast<int>(plain.size())) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), reinterpret_cast<unsigned char*>(out.data()) + written, &tail) != 1) {
        return std::nullopt;
    }
    out.resize(static_cast<std::size_t>(written + tail));
    return out;
}

std::optional<std::string> PackDocumentWith(std::string_view plain, const Iv& iv, std::uint8_t headerFill) {
    return Assemble(plain, iv, std::string(kPrivacyHeaderSize, static_cast<char>(headerFill)));
}

std::optional<std::string> PackDocument(std::string_view plain, HeaderMode mode) {
    Iv iv{};
    std::string header(kPrivacyHeaderSize, '\0');
    if (mode == HeaderMode::Random) {
        if (RAND_bytes(iv.data(), static_cast<int>(iv.size())) != 1 ||
            RAND_bytes(reinterpret_cast<unsigned char*>(header.data()), static_cast<int>(header.size())) !=
                1) {
            return std::nullopt;
        }
    } else {
        const auto ivDigest = Sha256("qlb-privacy-iv", plain, 0);
        std::memcpy(iv.data(), ivDigest.data(), iv.size());
        for (std::uint32_t block = 0; block * SHA256_DIGEST_LENGTH < header.size(); ++block) {
            const auto digest = Sha256("qlb-privacy-header", plain, block);
            const std::size_t offset = block * SHA256_DIGEST_LENGTH;
            std::memcpy(header.data() + offset, digest.data(),
                        std::min(digest.size(), header.size() - offset));
        }
    }
    return Assemble(plain, iv, std::move(header));
}

}  // namespace qlb::privacy
