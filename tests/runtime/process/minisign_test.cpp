// Signatures made by the real minisign tool, checked against the keys the machine trusts.

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"
#include "runtime/process/file_info.h"
#include "runtime/process/minisign.h"
#include "runtime/process/support/process_test_support.h"

namespace {

using namespace qlb::signing;
using qlb::testing::MinisignKey;
using qlb::testing::ReadFile;
using qlb::testing::TempDir;
using qlb::testing::WriteFile;

class SignatureTest : public ::testing::Test {
  protected:
    TempDir dir;
    MinisignKey key{dir.path(), "maker"};
    std::filesystem::path file = dir / "Module.dll";

    void SetUp() override { WriteFile(file, std::string(100000, 'x') + "payload"); }
    std::vector<std::filesystem::path> Trusted() const { return {key.publicKey()}; }
};

TEST_F(SignatureTest, GoodSignatureOfTheFileDigestVerifies) {
    key.Sign(file);
    EXPECT_EQ(VerifyFile(file, Trusted()), kSignatureGood);
}

TEST_F(SignatureTest, LegacySignatureOfTheWholeFileVerifies) {
    key.Sign(file, /*legacy=*/true);
    auto sig = ParseSignature(ReadFile(dir / "Module.dll.minisig"));
    ASSERT_TRUE(sig);
    EXPECT_FALSE(sig->prehashed);
    EXPECT_EQ(VerifyFile(file, Trusted()), kSignatureGood);
}

TEST_F(SignatureTest, MissingSignatureFileIsNoSignature) {
    EXPECT_EQ(VerifyFile(file, Trusted()), TRUST_E_NOSIGNATURE);
}

TEST_F(SignatureTest, GarbageSignatureFileIsNoSignature) {
    WriteFile(dir / "Module.dll.minisig", "untrusted comment: x\nnot base64!\n");
    EXPECT_EQ(VerifyFile(file, Trusted()), TRUST_E_NOSIGNATURE);
}

TEST_F(SignatureTest, AlteredFileIsBadDigest) {
    key.Sign(file);
    WriteFile(file, std::string(100000, 'x') + "pAyload");
    EXPECT_EQ(VerifyFile(file, Trusted()), TRUST_E_BAD_DIGEST);
}

TEST_F(SignatureTest, AlteredTrustedCommentIsBadDigest) {
    key.Sign(file);
    const auto sigPath = dir / "Module.dll.minisig";
    std::string text = ReadFile(sigPath);
    const auto pos = text.find("\ntrusted comment: ");
    ASSERT_NE(pos, std::string::npos);
    text.insert(pos + std::string("\ntrusted comment: ").size(), "forged ");
    WriteFile(sigPath, text);
    EXPECT_EQ(VerifyFile(file, Trusted()), TRUST_E_BAD_DIGEST);
}

TEST_F(SignatureTest, SignatureByAKeyTheMachineDoesNotTrustIsUntrusted) {
    MinisignKey stranger(dir.path(), "stranger");
    stranger.Sign(file);
    EXPECT_EQ(VerifyFile(file, Trusted()), CERT_E_UNTRUSTEDROOT);
    EXPECT_EQ(VerifyFile(file, {}), CERT_E_UNTRUSTEDROOT);
}

TEST_F(SignatureTest, TrustedKeyIsFoundAmongUnreadableAndForeignKeys) {
    MinisignKey other(dir.path(), "other");
    key.Sign(file);
    EXPECT_EQ(VerifyFile(file, {dir / "absent.pub", other.publicKey(), key.publicKey()}), kSignatureGood);
}

TEST_F(SignatureTest, MissingFileIsFileNotFound) {
    EXPECT_EQ(VerifyFile(dir / "absent.dll", Trusted()), win::ERROR_FILE_NOT_FOUND);
}

TEST_F(SignatureTest, OpenFileIsCheckedFromItsStartWhateverItsPosition) {
    key.Sign(file);
    const int fd = ::open(file.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::lseek(fd, 500, SEEK_SET), 500);
    EXPECT_EQ(VerifyOpenFile(fd, dir / "Module.dll.minisig", Trusted()), kSignatureGood);
    ::close(fd);
}

TEST_F(SignatureTest, FileInfoUsesTheProfilesTrustedKeys) {
    qlb::testing::ProfileScope profile(dir.path(), Trusted());
    key.Sign(file);
    const std::wstring wide = DE::ANSIToUnicode(file.string());
    EXPECT_TRUE(FileInfo::VerifyDigitalSignature(wide.c_str(), false));
    EXPECT_EQ(FileInfo::GetSignatureError(wide.c_str()), 0u);

    profile.profile().trustedKeys.clear();
    profile.Apply();
    EXPECT_FALSE(FileInfo::VerifyDigitalSignature(wide.c_str(), false));
    EXPECT_EQ(FileInfo::GetSignatureError(wide.c_str()), CERT_E_UNTRUSTEDROOT);
    EXPECT_FALSE(FileInfo::VerifyDigitalSignature(nullptr, false));
}

TEST(MinisignParsing, KeysOfTheWrongSizeOrAlgorithmAreRefused) {
    EXPECT_FALSE(ParsePublicKey(""));
    EXPECT_FALSE(ParsePublicKey("untrusted comment: x\n"));
    EXPECT_FALSE(ParsePublicKey("RWTYqkKFPUkz"));  // too short
    // "Ed" replaced by "Xd"
    EXPECT_FALSE(ParsePublicKey("WGTYqkKFPUkz/aPaTz/sXEi5+KDt1aaHTEIPrd1SSOnwD0NFlKe8Ty2M"));
    EXPECT_FALSE(ParsePublicKey("RWTYqkKFPUkz/aPaTz/sXEi5+KDt1aaHTEIPrd1SSOnwD0NFlKe8Ty2M\ntrailing"));
}

TEST(MinisignParsing, Base64IsStrict) {
    EXPECT_EQ(DecodeBase64("aGk="), (std::vector<std::uint8_t>{'h', 'i'}));
    EXPECT_EQ(DecodeBase64(""), std::vector<std::uint8_t>{});
    EXPECT_FALSE(DecodeBase64("aGk"));       // not a multiple of four
    EXPECT_FALSE(DecodeBase64("a=Gk"));      // padding inside
    EXPECT_FALSE(DecodeBase64("aG=k"));      // data after padding
    EXPECT_FALSE(DecodeBase64("aGk=aGk="));  // padding before the end
    EXPECT_FALSE(DecodeBase64("aG k"));
}

}  // namespace
