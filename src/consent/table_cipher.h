#pragma once
// The reader of the enciphered privacy document: a fixed table-driven block cipher in cipher-block
// chaining, decryption only.
//
// File layout: bytes 0-99 header (not read), 100-115 the initialisation vector, 116-255 header (not
// read), 256 onward the ciphertext, a non-zero multiple of 16 bytes. Padding is PKCS#7, except that a
// last byte of 0 means "no padding" and keeps the whole last block.

#include <cstdint>
#include <string>

inline constexpr std::uint32_t kPrivacyHeaderSize = 256;
inline constexpr std::uint32_t kPrivacyIvOffset = 100;
inline constexpr std::uint32_t kCipherBlockSize = 16;
inline constexpr std::uint32_t kPrivacyMinimumFileSize = kPrivacyHeaderSize + kCipherBlockSize;

// The plain text of the document at `path`, or an empty string on any failure. Never throws for a
// bad file and logs nothing; the caller reports.
std::string DecryXmlFile(const std::wstring& path);

// The size of the file, or 0 when it cannot be opened or measured.
std::uint32_t GetDecryptFileSize(const std::string& path);

// Decrypts `length` bytes (a non-zero multiple of 16) chained on `iv` into `out`, which holds at least
// `length` bytes and does not overlap `cipher`, and checks the padding. 0 on success with *plainLength
// set, -1 on failure.
int DecryptCbc(const unsigned char* iv, const unsigned char* cipher, std::uint32_t length, unsigned char* out,
               std::uint32_t* plainLength);

// Decrypts one 16-byte block. Always 0.
int DecryptBlock(const unsigned char* in, unsigned char* out);
