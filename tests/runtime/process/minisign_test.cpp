// Signatures made by the real minisign tool, checked against the keys the machine trusts.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"
#include "runtime/process/file_info.h"
#include "runtime/process/minisign.h"
#include "runtime/process/support/process_test_support.h"

namespace {

using namespace qlb::signing;
using namespace qlb::testing;

class SignatureTest : public ::testing::Test {
  protected:
    OpenTempDir dir;
    MinisignKey key{dir.path(), "maker"};
    std::filesystem::path file = dir / "Module.dll";
    std::filesystem::path signature = dir / "Module.dll.minisig";
    const std::string content = std::string(100000, 'x') + "payload";

    void SetUp() override { WriteFile(file, content); }
    std::vector<std::filesystem::path> Trusted() const { return {key.publicKey()}; }
};

TEST_F(SignatureTest, OnlyAGoodSignatureByATrustedKeyPassesAndEachFaultHasItsError) {
    MinisignKey stranger(dir.path(), "stranger");
    MinisignKey other(dir.path(), "other");
    // The trusted key is found behind an unreadable key and a foreign one.
    const std::vector<std::filesystem::path> keys{dir / "absent.pub", other.publicKey(), key.publicKey()};
    const struct {
        const char* name;
        std::function<void()> prepare;
        std::uint32_t expected;
    } cases[] = {
        {"digest signature", [&] { key.Sign(file); }, kSignatureGood},
        {"legacy whole-file signature", [&] { key.Sign(file, /*legacy=*/true); }, kSignatureGood},
        {"no signature file", [] {}, TRUST_E_NOSIGNATURE},
        {"garbage", [&] { WriteFile(signature, "untrusted comment: x\nnot base64!\n"); },
         TRUST_E_NOSIGNATURE},
        {"file altered after signing",
         [&] {
             key.Sign(file);
             WriteFile(file, std::string(100000, 'x') + "pAyload");
         },
         TRUST_E_BAD_DIGEST},
        {"trusted comment altered",
         [&] {
             key.Sign(file);
             std::string text = ReadFile(signature);
             const auto pos = text.find("\ntrusted comment: ");
             ASSERT_NE(pos, std::string::npos);
             WriteFile(signature, text.insert(pos + 18, "forged "));
         },
         TRUST_E_BAD_DIGEST},
        {"untrusted key", [&] { stranger.Sign(file); }, CERT_E_UNTRUSTEDROOT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteFile(file, content);
        std::filesystem::remove(signature);
        c.prepare();
        EXPECT_EQ(VerifyFile(file, keys), c.expected);
    }
    EXPECT_EQ(VerifyFile(file, {}), CERT_E_UNTRUSTEDROOT);
    EXPECT_EQ(VerifyFile(dir / "absent.dll", Trusted()), win::ERROR_FILE_NOT_FOUND);
}

TEST_F(SignatureTest, OpenFileIsCheckedFromItsStartWhateverItsPosition) {
    key.Sign(file);
    const int fd = ::open(file.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::lseek(fd, 500, SEEK_SET), 500);
    EXPECT_EQ(VerifyOpenFile(fd, signature, Trusted()), kSignatureGood);
    ::close(fd);
}

TEST_F(SignatureTest, FileInfoUsesTheProfilesTrustedKeys) {
    ProfileScope profile(dir.path(), Trusted());
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

TEST(MinisignParsing, KeysOfTheWrongSizeOrAlgorithmAndLooseBase64AreRefused) {
    for (const char* key : {"", "untrusted comment: x\n", "RWTYqkKFPUkz",                // too short
                            "WGTYqkKFPUkz/aPaTz/sXEi5+KDt1aaHTEIPrd1SSOnwD0NFlKe8Ty2M",  // "Ed" made "Xd"
                            "RWTYqkKFPUkz/aPaTz/sXEi5+KDt1aaHTEIPrd1SSOnwD0NFlKe8Ty2M\ntrailing"}) {
        EXPECT_FALSE(ParsePublicKey(key)) << key;
    }
    EXPECT_EQ(DecodeBase64("aGk="), (std::vector<std::uint8_t>{'h', 'i'}));
    EXPECT_EQ(DecodeBase64(""), std::vector<std::uint8_t>{});
    // Not a multiple of four, padding inside, data after padding, padding before the end, a space.
    for (const char* text : {"aGk", "a=Gk", "aG=k", "aGk=aGk=", "aG k"}) {
        EXPECT_FALSE(DecodeBase64(text)) << text;
    }
}

}  // namespace
