// The privacy document reader on arbitrary file contents, and the pack-then-read round trip.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "consent/table_cipher.h"
#include "privacy_pack.h"
#include "runtime/common/strings.h"

namespace {

const std::string& ScratchFile() {
    static const std::string path = "/tmp/qlb-privacy-fuzz-" + std::to_string(::getpid()) + ".dat";
    return path;
}

std::string ReadBack(const std::string& bytes) {
    FILE* out = std::fopen(ScratchFile().c_str(), "wb");
    if (out == nullptr) {
        std::abort();
    }
    std::fwrite(bytes.data(), 1, bytes.size(), out);
    std::fclose(out);
    return DecryXmlFile(DE::ANSIToUnicode(ScratchFile()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    // Arbitrary bytes as a file: any result, but never a crash and never more text than ciphertext.
    const std::string text = ReadBack(input);
    if (text.size() > (size > 256 ? size - 256 : 0)) {
        std::abort();
    }

    // The chained decryption directly, with the vector taken from the front of the input.
    if (size >= 16) {
        std::string out(size, '\0');
        std::uint32_t plainLength = 0;
        const auto* cipher = reinterpret_cast<const unsigned char*>(data + 16);
        const int result = DecryptCbc(data, cipher, static_cast<std::uint32_t>(size - 16),
                                      reinterpret_cast<unsigned char*>(out.data()), &plainLength);
        if (result == 0 && plainLength > size - 16) {
            std::abort();
        }
    }

    // What the packer writes, the reader gives back.
    if (size > 0 && size <= 4096) {
        const qlb::privacy::Iv iv = {
            data[0], data[size / 2], data[size - 1], 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
        const auto packed = qlb::privacy::PackDocumentWith(input, iv, data[0]);
        if (!packed || ReadBack(*packed) != input) {
            std::abort();
        }
    }
    return 0;
}
