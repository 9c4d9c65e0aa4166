#include "consent/table_cipher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <system_error>

#include "consent/cipher_table.h"
#include "runtime/common/strings.h"

namespace {

using qlb::consent::kDecryptTable;

inline std::uint32_t LoadWord(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

inline void StoreWord(unsigned char* p, std::uint32_t w) {
    p[0] = static_cast<unsigned char>(w);
    p[1] = static_cast<unsigned char>(w >> 8);
    p[2] = static_cast<unsigned char>(w >> 16);
    p[3] = static_cast<unsigned char>(w >> 24);
}

// Slot S of round R, indexed by byte B of w: every offset is a compile-time constant.
template <unsigned R, unsigned S, unsigned B>
[[gnu::always_inline]] inline std::uint32_t Look(std::uint32_t w) {
    return kDecryptTable[(R * 16 + S) * 256 + ((w >> (8 * B)) & 0xffu)];
}

// One round: output column c takes row k from input column (c - k) mod 4, the movement of the inverse
// ShiftRows step.
template <unsigned R>
[[gnu::always_inline]] inline void Round(std::uint32_t& w0, std::uint32_t& w1, std::uint32_t& w2,
                                         std::uint32_t& w3) {
    const std::uint32_t n0 = Look<R, 0, 0>(w0) ^ Look<R, 1, 1>(w3) ^ Look<R, 2, 2>(w2) ^ Look<R, 3, 3>(w1);
    const std::uint32_t n1 = Look<R, 4, 0>(w1) ^ Look<R, 5, 1>(w0) ^ Look<R, 6, 2>(w3) ^ Look<R, 7, 3>(w2);
    const std::uint32_t n2 = Look<R, 8, 0>(w2) ^ Look<R, 9, 1>(w1) ^ Look<R, 10, 2>(w0) ^ Look<R, 11, 3>(w3);
    const std::uint32_t n3 =
        Look<R, 12, 0>(w3) ^ Look<R, 13, 1>(w2) ^ Look<R, 14, 2>(w1) ^ Look<R, 15, 3>(w0);
    w0 = n0;
    w1 = n1;
    w2 = n2;
    w3 = n3;
}

using Buffer = std::unique_ptr<unsigned char[]>;

template <unsigned R, unsigned S>
[[gnu::always_inline]] inline std::uint32_t LookByte(unsigned char b) {
    return kDecryptTable[(R * 16 + S) * 256 + b];
}

// One round on a block held as bytes: byte k of word j is in[4j + k], so every look-up index is one
// byte load, with no shifting and masking of words.
template <unsigned R>
[[gnu::always_inline]] inline void RoundBytes(const unsigned char* in, unsigned char* out) {
    StoreWord(
        out, LookByte<R, 0>(in[0]) ^ LookByte<R, 1>(in[13]) ^ LookByte<R, 2>(in[10]) ^ LookByte<R, 3>(in[7]));
    StoreWord(out + 4, LookByte<R, 4>(in[4]) ^ LookByte<R, 5>(in[1]) ^ LookByte<R, 6>(in[14]) ^
                           LookByte<R, 7>(in[11]));
    StoreWord(out + 8, LookByte<R, 8>(in[8]) ^ LookByte<R, 9>(in[5]) ^ LookByte<R, 10>(in[2]) ^
                           LookByte<R, 11>(in[15]));
    StoreWord(out + 12, LookByte<R, 12>(in[12]) ^ LookByte<R, 13>(in[9]) ^ LookByte<R, 14>(in[6]) ^
                            LookByte<R, 15>(in[3]));
}

template <unsigned R>
[[gnu::always_inline]] inline void RoundBytes4(unsigned char (&from)[4][16], unsigned char (&to)[4][16]) {
    RoundBytes<R>(from[0], to[0]);
    RoundBytes<R>(from[1], to[1]);
    RoundBytes<R>(from[2], to[2]);
    RoundBytes<R>(from[3], to[3]);
}

// Decrypts four consecutive blocks (64 bytes) without chaining. The four look-up chains are
// independent, so the processor overlaps them: decryption is bound by loads, not by their latency.
void DecryptFourBlocks(const unsigned char* in, unsigned char* out) {
    unsigned char a[4][16];
    unsigned char b[4][16];
    std::memcpy(a, in, sizeof a);
    RoundBytes4<0>(a, b);
    RoundBytes4<1>(b, a);
    RoundBytes4<2>(a, b);
    RoundBytes4<3>(b, a);
    RoundBytes4<4>(a, b);
    RoundBytes4<5>(b, a);
    RoundBytes4<6>(a, b);
    RoundBytes4<7>(b, a);
    RoundBytes4<8>(a, b);
    RoundBytes4<9>(b, a);
    RoundBytes4<10>(a, b);
    RoundBytes4<11>(b, a);
    RoundBytes4<12>(a, b);
    RoundBytes4<13>(b, a);
    std::memcpy(out, a, sizeof a);
}

// Cleared buffer; null when memory is short.
Buffer AllocateCleared(std::size_t size) {
    Buffer buffer(new (std::nothrow) unsigned char[size]);
    if (buffer) {
        std::memset(buffer.get(), 0, size);
    }
    return buffer;
}

}  // namespace

int DecryptBlock(const unsigned char* in, unsigned char* out) {
    std::uint32_t w0 = LoadWord(in);
    std::uint32_t w1 = LoadWord(in + 4);
    std::uint32_t w2 = LoadWord(in + 8);
    std::uint32_t w3 = LoadWord(in + 12);
    Round<0>(w0, w1, w2, w3);
    Round<1>(w0, w1, w2, w3);
    Round<2>(w0, w1, w2, w3);
    Round<3>(w0, w1, w2, w3);
    Round<4>(w0, w1, w2, w3);
    Round<5>(w0, w1, w2, w3);
    Round<6>(w0, w1, w2, w3);
    Round<7>(w0, w1, w2, w3);
    Round<8>(w0, w1, w2, w3);
    Round<9>(w0, w1, w2, w3);
    Round<10>(w0, w1, w2, w3);
    Round<11>(w0, w1, w2, w3);
    Round<12>(w0, w1, w2, w3);
    Round<13>(w0, w1, w2, w3);
    StoreWord(out, w0);
    StoreWord(out + 4, w1);
    StoreWord(out + 8, w2);
    StoreWord(out + 12, w3);
    return 0;
}

int DecryptCbc(const unsigned char* iv, const unsigned char* cipher, std::uint32_t length, unsigned char* out,
               std::uint32_t* plainLength) {
    if (length == 0 || length % kCipherBlockSize != 0 || iv == nullptr || cipher == nullptr ||
        out == nullptr || plainLength == nullptr) {
        return -1;
    }
    const unsigned char* prev = iv;
    const std::uint32_t lastOffset = length - kCipherBlockSize;
    std::uint32_t offset = 0;
    // Blocks but the last, four at a time where they can be: each block depends only on its own
    // ciphertext, the chaining is the exclusive-or with the block before.
    for (; offset + 4 * kCipherBlockSize <= lastOffset; offset += 4 * kCipherBlockSize) {
        DecryptFourBlocks(cipher + offset, out + offset);
        for (std::uint32_t i = 0; i < kCipherBlockSize; ++i) {
            out[offset + i] ^= prev[i];
        }
        for (std::uint32_t i = kCipherBlockSize; i < 4 * kCipherBlockSize; ++i) {
            out[offset + i] ^= cipher[offset + i - kCipherBlockSize];
        }
        prev = cipher + offset + 3 * kCipherBlockSize;
    }
    for (; offset < lastOffset; offset += kCipherBlockSize) {
        DecryptBlock(cipher + offset, out + offset);
        for (std::uint32_t i = 0; i < kCipherBlockSize; ++i) {
            out[offset + i] ^= prev[i];
        }
        prev = cipher + offset;
    }

    unsigned char last[kCipherBlockSize];
    DecryptBlock(cipher + lastOffset, last);
    for (std::uint32_t i = 0; i < kCipherBlockSize; ++i) {
        last[i] ^= prev[i];
    }
    // A padding byte of 0 is accepted and keeps the whole last block.
    const std::uint32_t pad = last[kCipherBlockSize - 1];
    if (pad > kCipherBlockSize) {
        return -1;
    }
    if (pad >= 2) {
        for (std::uint32_t i = kCipherBlockSize - pad; i < kCipherBlockSize - 1; ++i) {
            if (last[i] != pad) {
                return -1;
            }
        }
    }
    *plainLength = length - pad;
    std::memcpy(out + lastOffset, last, kCipherBlockSize - pad);
    return 0;
}

std::uint32_t GetDecryptFileSize(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::uint32_t size = 0;
    struct stat info {};
    if (fd >= 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size >= 0 &&
        static_cast<std::uint64_t>(info.st_size) < 0xFFFFFFFFull) {
        size = static_cast<std::uint32_t>(info.st_size);
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return size;
}

std::string DecryXmlFile(const std::wstring& path) {
    if (path.empty()) {
        return {};
    }
    const std::string narrowPath = DE::UnicodeToANSI(path);
    std::error_code ec;
    if (!std::filesystem::exists(narrowPath, ec)) {
        return {};
    }
    const std::uint32_t size = GetDecryptFileSize(narrowPath);
    if (size < kPrivacyMinimumFileSize) {
        return {};
    }

    std::ifstream stream(narrowPath, std::ios::binary);
    Buffer file = AllocateCleared(size);
    if (!stream || !file) {
        return {};
    }
    // A short read leaves the rest of the buffer zero; the padding check then decides.
    stream.read(reinterpret_cast<char*>(file.get()), static_cast<std::streamsize>(size));
    if (stream.gcount() <= 0) {
        return {};
    }
    stream.close();

    unsigned char iv[kCipherBlockSize];
    std::memcpy(iv, file.get() + kPrivacyIvOffset, kCipherBlockSize);
    const std::uint32_t cipherLength = size - kPrivacyHeaderSize;
    Buffer cipher = AllocateCleared(cipherLength);
    Buffer plain = AllocateCleared(cipherLength);
    if (!cipher || !plain) {
        return {};
    }
    std::memcpy(cipher.get(), file.get() + kPrivacyHeaderSize, cipherLength);

    std::uint32_t plainLength = 0;
    if (DecryptCbc(iv, cipher.get(), cipherLength, plain.get(), &plainLength) != 0) {
        return {};
    }
    return std::string(reinterpret_cast<const char*>(plain.get()), plainLength);
}
