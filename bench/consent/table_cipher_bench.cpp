// Decryption speed of the table cipher beside OpenSSL's AES-256-CBC on the same ciphertext.
//
// OpenSSL picks its AES code from the CPU flags when it initialises. To measure its software path,
// run the program again with AES-NI masked; the flag starts it again with OPENSSL_ia32cap set:
//
//   consent_cipher_bench                         OpenSSL with AES-NI where the CPU has it
//   consent_cipher_bench --openssl-no-aesni      OPENSSL_ia32cap masks AES-NI (vector-permute AES remains)
//   consent_cipher_bench --openssl-no-simd       masks AES-NI and SSSE3 as well (plain table AES)

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "consent/privacy_key.h"
#include "consent/table_cipher.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Sample {
    Bytes iv = Bytes(16);
    Bytes cipher;
};

// Random plain text of `size` bytes, PKCS#7-padded and enciphered under the product's key.
Sample MakeSample(std::size_t size) {
    Sample sample;
    Bytes plain(size);
    RAND_bytes(plain.data(), static_cast<int>(plain.size()));
    RAND_bytes(sample.iv.data(), 16);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    sample.cipher.resize(size + 16);
    int n = 0;
    int tail = 0;
    EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, qlb::consent::kPrivacyDocumentKey.data(),
                       sample.iv.data());
    EVP_EncryptUpdate(ctx.get(), sample.cipher.data(), &n, plain.data(), static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(ctx.get(), sample.cipher.data() + n, &tail);
    sample.cipher.resize(static_cast<std::size_t>(n + tail));
    return sample;
}

void BM_TableCipherCbc(benchmark::State& state) {
    const Sample sample = MakeSample(static_cast<std::size_t>(state.range(0)));
    Bytes out(sample.cipher.size());
    std::uint32_t plainLength = 0;
    for (auto _ : state) {
        if (DecryptCbc(sample.iv.data(), sample.cipher.data(),
                       static_cast<std::uint32_t>(sample.cipher.size()), out.data(), &plainLength) != 0) {
            state.SkipWithError("padding check failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(sample.cipher.size()));
}

void BM_OpenSslAes256CbcDecrypt(benchmark::State& state) {
    const Sample sample = MakeSample(static_cast<std::size_t>(state.range(0)));
    Bytes out(sample.cipher.size() + 16);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    const char* cap = std::getenv("OPENSSL_ia32cap");
    state.SetLabel(cap ? std::string("OPENSSL_ia32cap=") + cap : "OpenSSL default dispatch");
    for (auto _ : state) {
        int n = 0;
        int tail = 0;
        if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr,
                               qlb::consent::kPrivacyDocumentKey.data(), sample.iv.data()) != 1 ||
            EVP_DecryptUpdate(ctx.get(), out.data(), &n, sample.cipher.data(),
                              static_cast<int>(sample.cipher.size())) != 1 ||
            EVP_DecryptFinal_ex(ctx.get(), out.data() + n, &tail) != 1) {
            state.SkipWithError("OpenSSL decryption failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(sample.cipher.size()));
}

// The shipped document is a few kilobytes; larger sizes show the steady rate.
BENCHMARK(BM_TableCipherCbc)->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_OpenSslAes256CbcDecrypt)->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20);

}  // namespace

int main(int argc, char** argv) {
    // CPUID bits in OPENSSL_ia32cap: AES-NI is bit 57 (ECX bit 25), SSSE3 bit 41 (ECX bit 9). libcrypto
    // reads the variable when it is loaded, before main, so the program starts itself again with it.
    std::vector<char*> rest;
    const char* mask = nullptr;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--openssl-no-aesni") {
            mask = "~0x200000000000000";
        } else if (arg == "--openssl-no-simd") {
            mask = "~0x200020000000000";
        } else {
            rest.push_back(argv[i]);
        }
    }
    if (mask != nullptr) {
        ::setenv("OPENSSL_ia32cap", mask, 1);
        rest.push_back(nullptr);
        ::execv("/proc/self/exe", rest.data());
        std::perror("execv");
        return 1;
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
