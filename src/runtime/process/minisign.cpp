#include "runtime/process/minisign.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include <openssl/evp.h>

#include "runtime/common/win_error.h"

namespace qlb::signing {
namespace {

constexpr std::string_view kUntrusted = "untrusted comment:";
constexpr std::string_view kTrusted = "trusted comment: ";
// A signature or key file is a few hundred bytes; anything far larger is not one.
constexpr std::uintmax_t kMaxSmallFile = 64 * 1024;

int Base64Value(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

std::string_view StripCr(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

std::vector<std::string_view> Lines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const auto nl = text.find('\n');
        lines.push_back(StripCr(text.substr(0, nl)));
        if (nl == std::string_view::npos) {
            break;
        }
        text.remove_prefix(nl + 1);
    }
    return lines;
}

std::optional<std::string> ReadSmallFile(const std::filesystem::path& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    if (ec || size > kMaxSmallFile) {
        return std::nullopt;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

struct MdCtxDeleter {
    void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct PkeyDeleter {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};

bool Ed25519Verify(const std::array<std::uint8_t, 32>& key, const std::uint8_t* sig, const void* message,
                   size_t messageSize) {
    std::unique_ptr<EVP_PKEY, PkeyDeleter> pkey(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.data(), key.size()));
    std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
    if (!pkey || !ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, pkey.get()) != 1) {
        return false;
    }
    return EVP_DigestVerify(ctx.get(), sig, 64, static_cast<const unsigned char*>(message), messageSize) == 1;
}

bool VerifyMessage(const void* message, size_t size, const Signature& signature, const PublicKey& key) {
    if (signature.keyId != key.keyId) {
        return false;
    }
    if (!Ed25519Verify(key.key, signature.signature.data(), message, size)) {
        return false;
    }
    std::string global(signature.signature.begin(), signature.signature.end());
    global += signature.trustedComment;
    return Ed25519Verify(key.key, signature.globalSignature.data(), global.data(), global.size());
}

bool Blake2b512(std::string_view content, std::array<unsigned char, 64>& digest) {
    unsigned int len = 0;
    return EVP_Digest(content.data(), content.size(), digest.data(), &len, EVP_blake2b512(), nullptr) == 1 &&
           len == digest.size();
}

// Reads the whole file from its start, or its BLAKE2b-512 digest when `digest` is set.
bool ReadFd(int fd, std::string* content, std::array<unsigned char, 64>* digest) {
    if (::lseek(fd, 0, SEEK_SET) != 0) {
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx;
    if (digest != nullptr) {
        ctx.reset(EVP_MD_CTX_new());
        if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_blake2b512(), nullptr) != 1) {
            return false;
        }
    }
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        if (ctx) {
            if (EVP_DigestUpdate(ctx.get(), buffer, static_cast<size_t>(n)) != 1) {
                return false;
            }
        } else {
            content->append(buffer, static_cast<size_t>(n));
        }
    }
    unsigned int len = 0;
    return !ctx || (EVP_DigestFinal_ex(ctx.get(), digest->data(), &len) == 1 && len == digest->size());
}

}  // namespace

std::optional<std::vector<std::uint8_t>> DecodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int v[4];
        int pad = 0;
        for (int j = 0; j < 4; ++j) {
            const char c = text[i + static_cast<size_t>(j)];
            if (c == '=' && last && j >= 2) {
                v[j] = 0;
                ++pad;
                continue;
            }
            if (pad > 0) {
                return std::nullopt;  // data after padding
            }
            v[j] = Base64Value(c);
            if (v[j] < 0) {
                return std::nullopt;
            }
        }
        const std::uint32_t triple =
            (static_cast<std::uint32_t>(v[0]) << 18) | (static_cast<std::uint32_t>(v[1]) << 12) |
            (static_cast<std::uint32_t>(v[2]) << 6) | static_cast<std::uint32_t>(v[3]);
        out.push_back(static_cast<std::uint8_t>(triple >> 16));
        if (pad < 2)
            out.push_back(static_cast<std::uint8_t>(triple >> 8));
        if (pad < 1)
            out.push_back(static_cast<std::uint8_t>(triple));
    }
    return out;
}

std::optional<PublicKey> ParsePublicKey(std::string_view text) {
    auto lines = Lines(text);
    size_t i = 0;
    if (i < lines.size() && lines[i].starts_with(kUntrusted)) {
        ++i;
    }
    if (i >= lines.size()) {
        return std::nullopt;
    }
    for (size_t j = i + 1; j < lines.size(); ++j) {
        if (!lines[j].empty()) {
            return std::nullopt;  // only blank lines may follow the key
        }
    }
    auto raw = DecodeBase64(lines[i]);
    if (!raw || raw->size() != 42 || (*raw)[0] != 'E' || (*raw)[1] != 'd') {
        return std::nullopt;
    }
    PublicKey key;
    std::memcpy(key.keyId.data(), raw->data() + 2, 8);
    std::memcpy(key.key.data(), raw->data() + 10, 32);
    return key;
}

std::optional<Signature> ParseSignature(std::string_view text) {
    auto lines = Lines(text);
    if (lines.size() < 4 || !lines[0].starts_with(kUntrusted) || !lines[2].starts_with(kTrusted)) {
        return std::nullopt;
    }
    for (size_t j = 4; j < lines.size(); ++j) {
        if (!lines[j].empty()) {
            return std::nullopt;
        }
    }
    auto raw = DecodeBase64(lines[1]);
    auto global = DecodeBase64(lines[3]);
    if (!raw || raw->size() != 74 || !global || global->size() != 64 || (*raw)[0] != 'E') {
        return std::nullopt;
    }
    Signature sig;
    if ((*raw)[1] == 'D') {
        sig.prehashed = true;
    } else if ((*raw)[1] == 'd') {
        sig.prehashed = false;
    } else {
        return std::nullopt;
    }
    std::memcpy(sig.keyId.data(), raw->data() + 2, 8);
    std::memcpy(sig.signature.data(), raw->data() + 10, 64);
    sig.trustedComment = std::string(lines[2].substr(kTrusted.size()));
    std::memcpy(sig.globalSignature.data(), global->data(), 64);
    return sig;
}

bool VerifyContent(std::string_view content, const Signature& signature, const PublicKey& key) {
    if (signature.prehashed) {
        std::array<unsigned char, 64> digest{};
        return Blake2b512(content, digest) && VerifyMessage(digest.data(), digest.size(), signature, key);
    }
    return VerifyMessage(content.data(), content.size(), signature, key);
}

std::uint32_t VerifyOpenFile(int fd, const std::filesystem::path& signaturePath,
                             const std::vector<std::filesystem::path>& trustedKeys) {
    const auto sigText = ReadSmallFile(signaturePath);
    if (!sigText) {
        return TRUST_E_NOSIGNATURE;
    }
    const auto signature = ParseSignature(*sigText);
    if (!signature) {
        return TRUST_E_NOSIGNATURE;
    }
    std::optional<PublicKey> trusted;
    for (const auto& keyPath : trustedKeys) {
        const auto keyText = ReadSmallFile(keyPath);
        if (!keyText) {
            continue;
        }
        auto key = ParsePublicKey(*keyText);
        if (key && key->keyId == signature->keyId) {
            trusted = key;
            break;
        }
    }
    if (!trusted) {
        return CERT_E_UNTRUSTEDROOT;
    }
    bool good = false;
    if (signature->prehashed) {
        std::array<unsigned char, 64> digest{};
        good =
            ReadFd(fd, nullptr, &digest) && VerifyMessage(digest.data(), digest.size(), *signature, *trusted);
    } else {
        std::string content;
        good = ReadFd(fd, &content, nullptr) &&
               VerifyMessage(content.data(), content.size(), *signature, *trusted);
    }
    return good ? kSignatureGood : TRUST_E_BAD_DIGEST;
}

std::uint32_t VerifyFile(const std::filesystem::path& path,
                         const std::vector<std::filesystem::path>& trustedKeys) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT ? win::ERROR_FILE_NOT_FOUND : win::FromErrno(errno);
    }
    auto sigPath = path;
    sigPath += ".minisig";
    const std::uint32_t result = VerifyOpenFile(fd, sigPath, trustedKeys);
    ::close(fd);
    return result;
}

}  // namespace qlb::signing
