// The table cipher against OpenSSL's AES-256-CBC, and the data-file reader's handling of bad files.

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "consent/privacy_key.h"
#include "consent/table_cipher.h"
#include "privacy_pack.h"
#include "runtime/common/strings.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes RandomBytes(std::size_t size) {
    Bytes bytes(size);
    if (size != 0) {
        EXPECT_EQ(RAND_bytes(bytes.data(), static_cast<int>(size)), 1);
    }
    return bytes;
}

// Raw AES-256-CBC under `key` without padding: the caller lays out the last block itself.
Bytes EncryptRaw(const unsigned char* key, const unsigned char* iv, const Bytes& plain) {
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    Bytes out(plain.size() + 16);
    int n = 0;
    int tail = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, key, iv), 1);
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    EXPECT_EQ(EVP_EncryptUpdate(ctx.get(), out.data(), &n, plain.data(), static_cast<int>(plain.size())), 1);
    EXPECT_EQ(EVP_EncryptFinal_ex(ctx.get(), out.data() + n, &tail), 1);
    out.resize(static_cast<std::size_t>(n + tail));
    return out;
}

Bytes Encrypt(const unsigned char* iv, const Bytes& plain) {
    return EncryptRaw(qlb::consent::kPrivacyDocumentKey.data(), iv, plain);
}

// Runs DecryptCbc and returns the plain bytes, or nullopt on -1.
std::optional<Bytes> Decrypt(const unsigned char* iv, const Bytes& cipher) {
    Bytes out(cipher.size() + 1, 0xEE);
    std::uint32_t plainLength = 0xFFFFFFFF;
    if (DecryptCbc(iv, cipher.data(), static_cast<std::uint32_t>(cipher.size()), out.data(), &plainLength) !=
        0) {
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

TEST(TableCipherBlock, DecryptsWhatAes256EncryptsForRandomBlocks) {
    for (int i = 0; i < 200; ++i) {
        const Bytes plain = RandomBytes(16);
        const Bytes zeroIv(16, 0);
        const Bytes cipher = Encrypt(zeroIv.data(), plain);
        unsigned char out[16];
        EXPECT_EQ(DecryptBlock(cipher.data(), out), 0);
        ASSERT_EQ(0, std::memcmp(out, plain.data(), 16)) << "block " << i;
    }
}

TEST(TableCipherCbc, MatchesOpenSslOnRandomDataOfManyLengths) {
    for (std::size_t length = 0; length <= 600; length += (length < 80 ? 1 : 37)) {
        const Bytes iv = RandomBytes(16);
        const Bytes plain = RandomBytes(length);
        const auto decrypted = Decrypt(iv.data(), Encrypt(iv.data(), Padded(plain)));
        ASSERT_TRUE(decrypted.has_value()) << "length " << length;
        ASSERT_EQ(*decrypted, plain) << "length " << length;
    }
}

TEST(TableCipherCbc, RefusesEmptyUnalignedAndMissingArguments) {
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

// Padding rules on a last plain block laid out by the test.
class TableCipherPadding : public ::testing::Test {
  protected:
    std::optional<Bytes> DecryptLastBlock(const Bytes& lastBlock) {
        Bytes plain = first_;
        plain.insert(plain.end(), lastBlock.begin(), lastBlock.end());
        return Decrypt(iv_.data(), Encrypt(iv_.data(), plain));
    }
    Bytes iv_ = RandomBytes(16);
    Bytes first_ = RandomBytes(32);
};

TEST_F(TableCipherPadding, LastByteZeroKeepsTheWholeBlock) {
    Bytes last = RandomBytes(16);
    last[15] = 0;
    const auto plain = DecryptLastBlock(last);
    ASSERT_TRUE(plain.has_value());
    ASSERT_EQ(plain->size(), 48u);
    EXPECT_TRUE(std::equal(last.begin(), last.end(), plain->begin() + 32));
}

TEST_F(TableCipherPadding, LastByteOneDropsOneByteAndComparesNoOther) {
    Bytes last = RandomBytes(16);
    last[14] = 0x77;
    last[15] = 1;
    const auto plain = DecryptLastBlock(last);
    ASSERT_TRUE(plain.has_value());
    ASSERT_EQ(plain->size(), 47u);
    EXPECT_EQ((*plain)[46], 0x77);
}

TEST_F(TableCipherPadding, FullPaddingBlockGivesNothingOfIt) {
    const auto plain = DecryptLastBlock(Bytes(16, 16));
    ASSERT_TRUE(plain.has_value());
    EXPECT_EQ(*plain, first_);
}

TEST_F(TableCipherPadding, PaddingByteAboveSixteenFails) {
    Bytes last(16, 17);
    EXPECT_FALSE(DecryptLastBlock(last).has_value());
    last.assign(16, 0xFF);
    EXPECT_FALSE(DecryptLastBlock(last).has_value());
}

TEST_F(TableCipherPadding, UnequalPaddingBytesFail) {
    Bytes last = RandomBytes(16);
    last[12] = 4;
    last[13] = 4;
    last[14] = 3;  // one of the p - 1 bytes before the last differs
    last[15] = 4;
    EXPECT_FALSE(DecryptLastBlock(last).has_value());
    last[14] = 4;
    const auto plain = DecryptLastBlock(last);
    ASSERT_TRUE(plain.has_value());
    EXPECT_EQ(plain->size(), 44u);
}

// The data-file reader.
class DecryXmlFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() / ("qlb-cipher-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    std::wstring Write(const std::string& name, const std::string& bytes) {
        const auto path = dir_ / name;
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return DE::ANSIToUnicode(path.string());
    }
    // A file around plain bytes, padded by the test, with header bytes of `fill`.
    std::string FileAround(const Bytes& paddedPlain, unsigned char fill) {
        const Bytes iv = RandomBytes(16);
        const Bytes cipher = Encrypt(iv.data(), paddedPlain);
        std::string file(256, static_cast<char>(fill));
        std::memcpy(file.data() + 100, iv.data(), 16);
        file.append(reinterpret_cast<const char*>(cipher.data()), cipher.size());
        return file;
    }
    std::filesystem::path dir_;
};

TEST_F(DecryXmlFileTest, ReadsWhatThePackerWrote) {
    const std::string xml = "<privacy><brand name=\"zorvane\"/></privacy>";
    const auto packed = qlb::privacy::PackDocument(xml, qlb::privacy::HeaderMode::Random);
    ASSERT_TRUE(packed.has_value());
    EXPECT_EQ(DecryXmlFile(Write("doc.dat", *packed)), xml);
}

TEST_F(DecryXmlFileTest, HeaderBytesAroundTheVectorMayHoldAnything) {
    const std::string xml = "<a>header independent</a>";
    const Bytes plain = Padded(Bytes(xml.begin(), xml.end()));
    for (const unsigned char fill : {0x00, 0x5a, 0xff}) {
        EXPECT_EQ(DecryXmlFile(Write("fill.dat", FileAround(plain, fill))), xml);
    }
}

TEST_F(DecryXmlFileTest, SmallestFileWithFullPaddingReadsEmpty) {
    const std::string file = FileAround(Bytes(16, 16), 0);
    ASSERT_EQ(file.size(), 272u);
    EXPECT_EQ(DecryXmlFile(Write("272.dat", file)), "");
}

TEST_F(DecryXmlFileTest, SmallestFileWithOneByteOfTextReadsIt) {
    Bytes plain(16, 15);
    plain[0] = 'x';
    EXPECT_EQ(DecryXmlFile(Write("272x.dat", FileAround(plain, 0))), "x");
}

TEST_F(DecryXmlFileTest, BadFilesReadEmpty) {
    const std::string good = FileAround(Padded(Bytes(40, 'a')), 0);
    EXPECT_EQ(DecryXmlFile(L""), "");
    EXPECT_EQ(DecryXmlFile(DE::ANSIToUnicode((dir_ / "missing.dat").string())), "");
    EXPECT_EQ(DecryXmlFile(Write("empty.dat", "")), "");
    EXPECT_EQ(DecryXmlFile(Write("short.dat", good.substr(0, 271))), "");
    EXPECT_EQ(DecryXmlFile(Write("273.dat", good.substr(0, 273))), "");
    EXPECT_EQ(DecryXmlFile(Write("trailing.dat", good + "z")), "");
    EXPECT_EQ(DecryXmlFile(DE::ANSIToUnicode(dir_.string())), "");
}

TEST_F(DecryXmlFileTest, FileEncipheredUnderAnotherKeyIsRefusedByItsPadding) {
    // Under a wrong key the last byte is random: a few in sixteen pass the padding test and give
    // garbage, the rest fail. Neither may give the plain text.
    const std::string xml = "<privacy>other key</privacy>";
    const Bytes plain = Padded(Bytes(xml.begin(), xml.end()));
    int refused = 0;
    for (int i = 0; i < 64; ++i) {
        const Bytes key = RandomBytes(32);
        const Bytes iv = RandomBytes(16);
        const Bytes cipher = EncryptRaw(key.data(), iv.data(), plain);
        std::string file(256, 0);
        std::memcpy(file.data() + 100, iv.data(), 16);
        file.append(reinterpret_cast<const char*>(cipher.data()), cipher.size());
        const std::string text = DecryXmlFile(Write("other.dat", file));
        EXPECT_NE(text, xml);
        refused += text.empty() ? 1 : 0;
    }
    EXPECT_GT(refused, 32);
}

}  // namespace
