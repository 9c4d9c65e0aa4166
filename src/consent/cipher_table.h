#pragma once
// The decryption table of the table cipher: 14 rounds x 16 slots x 256 input bytes, at flat index
// (round * 16 + slot) * 256 + byte. Generated at build time from the privacy document key.

#include <cstddef>
#include <cstdint>

namespace qlb::consent {

inline constexpr std::size_t kDecryptTableRounds = 14;
inline constexpr std::size_t kDecryptTableWords = kDecryptTableRounds * 16 * 256;

extern const std::uint32_t kDecryptTable[kDecryptTableWords];

}  // namespace qlb::consent
