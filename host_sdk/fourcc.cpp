#include "host_sdk/fourcc.h"

std::string FourCCToString(uint32_t code) {
  std::string out(4, ' ');
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = static_cast<unsigned char>(code >> (24 - 8 * i));
    out[i] = (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
  }
  return out;
}
