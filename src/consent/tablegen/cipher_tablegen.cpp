// Build-time generator of the decryption table: folds the AES-256 key schedule of the privacy document
// key into 14 x 16 x 256 words, so that the table cipher is AES-256 decryption made of look-ups and
// exclusive-ors alone.
//
// Round r of the table takes the state in the inverse-ShiftRows arrangement and gives, per output
// column, the exclusive-or of four looked-up words:
//   r = 0:      the byte is first combined with the last round key (the initial AddRoundKey),
//   r = 0..12:  InvSubBytes, AddRoundKey(K[13 - r]), InvMixColumns (the key is mixed and folded into
//               the row-0 slot of each column, since InvMixColumns is linear),
//   r = 13:     InvSubBytes and AddRoundKey(K[0]) without a mix.
//
// Usage: qlb_cipher_tablegen OUT.cpp

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "consent/privacy_key.h"

namespace {

using Byte = std::uint8_t;

Byte XTime(Byte x) {
    return static_cast<Byte>((x << 1) ^ ((x & 0x80) ? 0x1b : 0x00));
}

Byte GfMul(Byte a, Byte b) {
    Byte product = 0;
    while (b != 0) {
        if (b & 1) {
            product ^= a;
        }
        a = XTime(a);
        b >>= 1;
    }
    return product;
}

Byte GfInverse(Byte x) {
    if (x == 0) {
        return 0;
    }
    // x^254 is the multiplicative inverse in GF(2^8).
    Byte result = 1;
    Byte base = x;
    unsigned exponent = 254;
    while (exponent != 0) {
        if (exponent & 1) {
            result = GfMul(result, base);
        }
        base = GfMul(base, base);
        exponent >>= 1;
    }
    return result;
}

Byte RotateLeft8(Byte x, int n) {
    return static_cast<Byte>((x << n) | (x >> (8 - n)));
}

struct Boxes {
    std::array<Byte, 256> sbox{};
    std::array<Byte, 256> inverse{};
};

Boxes MakeBoxes() {
    Boxes boxes;
    for (int i = 0; i < 256; ++i) {
        const Byte inv = GfInverse(static_cast<Byte>(i));
        const Byte s = static_cast<Byte>(inv ^ RotateLeft8(inv, 1) ^ RotateLeft8(inv, 2) ^
                                         RotateLeft8(inv, 3) ^ RotateLeft8(inv, 4) ^ 0x63);
        boxes.sbox[static_cast<std::size_t>(i)] = s;
        boxes.inverse[s] = static_cast<Byte>(i);
    }
    return boxes;
}

// AES-256 key expansion: 15 round keys of 16 bytes, byte 4c + r being row r of column c.
std::array<std::array<Byte, 16>, 15> ExpandKey(const std::array<Byte, 32>& key, const Boxes& boxes) {
    std::array<Byte, 240> w{};
    for (std::size_t i = 0; i < 32; ++i) {
        w[i] = key[i];
    }
    Byte rcon = 1;
    for (std::size_t i = 8; i < 60; ++i) {
        std::array<Byte, 4> t = {w[4 * (i - 1)], w[4 * (i - 1) + 1], w[4 * (i - 1) + 2], w[4 * (i - 1) + 3]};
        if (i % 8 == 0) {
            t = {boxes.sbox[t[1]], boxes.sbox[t[2]], boxes.sbox[t[3]], boxes.sbox[t[0]]};
            t[0] ^= rcon;
            rcon = XTime(rcon);
        } else if (i % 8 == 4) {
            t = {boxes.sbox[t[0]], boxes.sbox[t[1]], boxes.sbox[t[2]], boxes.sbox[t[3]]};
        }
        for (std::size_t j = 0; j < 4; ++j) {
            w[4 * i + j] = static_cast<Byte>(w[4 * (i - 8) + j] ^ t[j]);
        }
    }
    std::array<std::array<Byte, 16>, 15> roundKeys{};
    for (std::size_t r = 0; r < 15; ++r) {
        for (std::size_t j = 0; j < 16; ++j) {
            roundKeys[r][j] = w[16 * r + j];
        }
    }
    return roundKeys;
}

constexpr std::array<std::array<Byte, 4>, 4> kInvMix = {{
    {0x0e, 0x0b, 0x0d, 0x09},
    {0x09, 0x0e, 0x0b, 0x0d},
    {0x0d, 0x09, 0x0e, 0x0b},
    {0x0b, 0x0d, 0x09, 0x0e},
}};

// The contribution of value v standing in row k to a column after InvMixColumns.
std::uint32_t MixedWord(Byte v, std::size_t k) {
    std::uint32_t word = 0;
    for (std::size_t row = 0; row < 4; ++row) {
        word |= static_cast<std::uint32_t>(GfMul(kInvMix[row][k], v)) << (8 * row);
    }
    return word;
}

std::uint32_t KeyColumn(const std::array<Byte, 16>& roundKey, std::size_t column, bool mixed) {
    if (!mixed) {
        return static_cast<std::uint32_t>(roundKey[4 * column]) |
               (static_cast<std::uint32_t>(roundKey[4 * column + 1]) << 8) |
               (static_cast<std::uint32_t>(roundKey[4 * column + 2]) << 16) |
               (static_cast<std::uint32_t>(roundKey[4 * column + 3]) << 24);
    }
    std::uint32_t word = 0;
    for (std::size_t k = 0; k < 4; ++k) {
        word ^= MixedWord(roundKey[4 * column + k], k);
    }
    return word;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: qlb_cipher_tablegen OUT.cpp\n";
        return 2;
    }
    const Boxes boxes = MakeBoxes();
    const auto roundKeys = ExpandKey(qlb::consent::kPrivacyDocumentKey, boxes);

    static std::array<std::uint32_t, 14 * 16 * 256> table{};
    for (std::size_t r = 0; r < 14; ++r) {
        const bool lastRound = (r == 13);
        const auto& addKey = roundKeys[13 - r];
        for (std::size_t c = 0; c < 4; ++c) {
            for (std::size_t k = 0; k < 4; ++k) {
                // The byte in row k of output column c comes from column (c - k) mod 4 of the input.
                const std::size_t sourceColumn = (c + 4 - k) % 4;
                for (std::size_t b = 0; b < 256; ++b) {
                    Byte in = static_cast<Byte>(b);
                    if (r == 0) {
                        in ^= roundKeys[14][4 * sourceColumn + k];
                    }
                    const Byte v = boxes.inverse[in];
                    std::uint32_t word =
                        lastRound ? (static_cast<std::uint32_t>(v) << (8 * k)) : MixedWord(v, k);
                    if (k == 0) {
                        word ^= KeyColumn(addKey, c, !lastRound);
                    }
                    table[(r * 16 + 4 * c + k) * 256 + b] = word;
                }
            }
        }
    }

    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    if (!out) {
        std::cerr << "cannot write " << argv[1] << "\n";
        return 1;
    }
    out << "// Generated by qlb_cipher_tablegen from the privacy document key; do not edit.\n"
        << "#include \"consent/cipher_table.h\"\n\n"
        << "namespace qlb::consent {\n\n"
        << "alignas(64) const std::uint32_t kDecryptTable[kDecryptTableWords] = {\n";
    char buffer[16];
    for (std::size_t i = 0; i < table.size(); ++i) {
        std::snprintf(buffer, sizeof buffer, "0x%08xu,", table[i]);
        out << buffer << ((i % 8 == 7) ? "\n" : " ");
    }
    out << "};\n\n}  // namespace qlb::consent\n";
    return out.good() ? 0 : 1;
}
