#pragma once
// Writing privacy documents: the plain XML enciphered with AES-256-CBC under the product's key, in the
// layout the consent subsystem reads (256-byte header with the vector at offset 100, then the
// ciphertext with PKCS#7 padding).

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qlb::privacy {

enum class HeaderMode {
    Random,   // fresh random header bytes and vector
    Derived,  // header bytes and vector derived from the plain text: the same input gives the same file
};

using Iv = std::array<std::uint8_t, 16>;

// AES-256-CBC with PKCS#7 padding under the product's key; nullopt when OpenSSL fails.
std::optional<std::string> EncryptCbc(const Iv& iv, std::string_view plain);

// A whole document around `plain`; nullopt when OpenSSL fails.
std::optional<std::string> PackDocument(std::string_view plain, HeaderMode mode);

// The same with a given vector and header filler (tests).
std::optional<std::string> PackDocumentWith(std::string_view plain, const Iv& iv, std::uint8_t headerFill);

}  // namespace qlb::privacy
