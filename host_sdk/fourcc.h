#pragma once
// Four-character codes as the host packs them: first character in the most significant byte.

#include <cstdint>
#include <string>

constexpr uint32_t FourCC(const char (&s)[5]) {
  return (static_cast<uint32_t>(static_cast<unsigned char>(s[0])) << 24) |
         (static_cast<uint32_t>(static_cast<unsigned char>(s[1])) << 16) |
         (static_cast<uint32_t>(static_cast<unsigned char>(s[2])) << 8) |
         static_cast<uint32_t>(static_cast<unsigned char>(s[3]));
}

// Always four characters; bytes outside printable ASCII come out as '.' so logs stay readable.
std::string FourCCToString(uint32_t code);
