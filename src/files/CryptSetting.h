// The crypt setting of a new SHA-512 password hash, from 16 random bytes.  Inline, so that the
// tests check the derivation itself with chosen bytes.
#pragma once

#include <cstdint>
#include <string>

namespace usermanagement::detail {

constexpr char kCryptAlphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// "$6$" + 16 characters of the crypt alphabet: the bytes are read as four little-endian 32-bit
// words W[0..3], and character i takes the six bits of W[i / 5] starting at bit 6 * (i % 5).
// So W[0..2] give five characters each (their top two bits unused) and W[3] one.
inline std::string sha512Setting(const unsigned char (&random)[16]) {
    std::uint32_t words[4];
    for (int w = 0; w < 4; ++w)
        words[w] = static_cast<std::uint32_t>(random[4 * w]) | static_cast<std::uint32_t>(random[4 * w + 1]) << 8 |
                   static_cast<std::uint32_t>(random[4 * w + 2]) << 16 |
                   static_cast<std::uint32_t>(random[4 * w + 3]) << 24;
    std::string setting = "$6$";
    for (int i = 0; i < 16; ++i) setting += kCryptAlphabet[(words[i / 5] >> (6 * (i % 5))) & 63];
    return setting;
}

}  // namespace usermanagement::detail
