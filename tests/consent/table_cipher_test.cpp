// The table cipher against OpenSSL's AES-256-CBC, and the data-file reader's handling of bad files.

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "consent/privacy_key.h"
#include "consent/table_cipher.h"
#include "runtime/common/strings.h"
#include "support/temp_dir.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes RandomBytes(std::size_t size) {
    Bytes bytes(size);
    if (size != 0) {
        EXPECT_EQ(RAND_bytes(bytes.data(), static_cast<int>(size)), 1);
    }
    return bytes;
}

// Raw AES-256-CBC under the document's key without padding: the caller lays out the last block.
Bytes Encrypt(const Bytes& iv, const Bytes& plain) {
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    Bytes out(plain.size() + 16);
    int n = 0;
    int tail = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr,
                                 qlb::consent::kPrivacyDocumentKey.data(), iv.data()),
              1);
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    EXPECT_EQ(EVP_EncryptUpdate(ctx.get(), out.data(), &n, plain.data(), static_cast<int>(plain.size())), 1);
    EXPECT_EQ(EVP_EncryptFinal_ex(ctx.get(), out.data() + n, &tail), 1);
    out.resize(static_cast<std::size_t>(n + tail));
    return out;
}

// DecryptCbc's plain bytes, or nullopt when it refuses.
std::optional<Bytes> Decrypt(const Bytes& iv, const Bytes& cipher) {
    Bytes out(cipher.size() + 1, 0xEE);
    std::uint32_t plainLength = 0xFFFFFFFF;
    if (DecryptCbc(iv.data(), cipher.data(), static_cast<std::uint32_t>(cipher.size()), out.data(),
                   &plainLength) != 0) {
        return std::nullopt;
    }
    EXPECT_LE(plainLength, cipher.size());
    out.resize(plainLength);
    return out;
}

Bytes Padded(Bytes plain) {
    const std::size_t pad = 16 - plain.size() % 16;
    plain.insert(plain.end(), pad, static_cast<unsigned char>(pad));
    return plain;
}

TEST(TableCipher, MatchesOpenSslOnRandomDataOfManyLengths) {
    for (std::size_t length = 0; length <= 600; length += (length < 80 ? 1 : 37)) {
        const Bytes iv = RandomBytes(16);
        const Bytes plain = RandomBytes(length);
        const auto decrypted = Decrypt(iv, Encrypt(iv, Padded(plain)));
        ASSERT_TRUE(decrypted.has_value()) << "length " << length;
        ASSERT_EQ(*decrypted, plain) << "length " << length;
    }
}

TEST(TableCipher, RefusesEmptyUnalignedAndMissingArguments) {
    const Bytes iv(16, 1);
    const Bytes cipher(32, 2);
    Bytes out(32);
    std::uint32_t plainLength = 0;
    EXPECT_EQ(DecryptCbc(iv.data(), cipher.data(), 0, out.data(), &plainLength), -1);
    EXPECT_EQ(DecryptCbc(iv.data(), cipher.data(), 17, out.data(), &plainLength), -1);
    EXPECT_EQ(DecryptCbc(iv.data(), cipher.data(), 31, out.data(), &plainLength), -1);
    EXPECT_EQ(DecryptCbc(nullptr, cipher.data(), 32, out.data(), &plainLength), -1);
    EXPECT_EQ(DecryptCbc(iv.data(), nullptr, 32, out.data(), &plainLength), -1);
    EXPECT_EQ(DecryptCbc(iv.data(), cipher.data(), 32, nullptr, &plainLength), -1);
    EXPECT_EQ(DecryptCbc(iv.data(), cipher.data(), 32, out.data(), nullptr), -1);
}

TEST(TableCipher, PaddingOfTheLastBlock) {
    // The last byte p says how many bytes to drop; 0 keeps the block, above 16 fails, and the p - 1
    // bytes before it must equal p.
    const struct {
        const char* what;
        int from;                           // bytes from..15 of a random last block are set to `value`
        unsigned char value;                // (in random bytes only the last one is compared for p = 1)
        int odd;                            // a byte set to another value, or -1
        std::optional<std::size_t> length;  // of 48 bytes, nullopt when refused
    } cases[] = {
        {"zero keeps the whole block", 15, 0, -1, 48},
        {"seventeen", 0, 17, -1, std::nullopt},
        {"0xff", 15, 0xFF, -1, std::nullopt},
        {"unequal padding bytes", 12, 4, 14, std::nullopt},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        const Bytes iv = RandomBytes(16);
        Bytes plain = RandomBytes(48);
        std::fill(plain.begin() + 32 + item.from, plain.end(), item.value);
        if (item.odd >= 0) {
            plain[32 + item.odd] = item.value - 1;
        }
        const auto decrypted = Decrypt(iv, Encrypt(iv, plain));
        ASSERT_EQ(decrypted.has_value(), item.length.has_value());
        if (decrypted) {
            EXPECT_EQ(*decrypted, Bytes(plain.begin(), plain.begin() + static_cast<long>(*item.length)));
        }
    }
}

// The data-file reader: 256 header bytes with the vector at offset 100, then the ciphertext.
class DecryXmlFileTest : public ::testing::Test {
  protected:
    std::wstring Write(const std::string& bytes) {
        const auto path = dir_ / "doc.dat";
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return DE::ANSIToUnicode(path.string());
    }
    static std::string FileAround(const Bytes& paddedPlain, unsigned char fill = 0) {
        const Bytes iv = RandomBytes(16);
        const Bytes cipher = Encrypt(iv, paddedPlain);
        std::string file(256, static_cast<char>(fill));
        std::memcpy(file.data() + 100, iv.data(), 16);
        file.append(reinterpret_cast<const char*>(cipher.data()), cipher.size());
        return file;
    }
    qlb::testing::TempDir dir_;
};

TEST_F(DecryXmlFileTest, SmallestFileOf272BytesReadsAndBadFilesReadEmpty) {
    Bytes plain(16, 15);
    plain[0] = 'x';
    const std::string smallest = FileAround(plain);
    EXPECT_EQ(DecryXmlFile(Write(smallest)), "x");
    EXPECT_EQ(DecryXmlFile(L""), "");
    EXPECT_EQ(DecryXmlFile(DE::ANSIToUnicode((dir_ / "missing.dat").string())), "");
    EXPECT_EQ(DecryXmlFile(DE::ANSIToUnicode(dir_.Path().string())), "");
    for (const std::string& bad : {std::string(), smallest.substr(0, 271), smallest + "z"}) {
        EXPECT_EQ(DecryXmlFile(Write(bad)), "") << bad.size();
    }
}

}  // namespace
