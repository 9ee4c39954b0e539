#include "sctp/hex_dump.h"

namespace quorvel {

std::string hexDump(const uint8_t* data, std::size_t size, std::size_t limit) {
  static const char digits[] = "0123456789abcdef";
  const std::size_t shown = size < limit ? size : limit;
  std::string text;
  text.reserve(shown * 3 + shown / 16 + 4);
  for (std::size_t i = 0; i < shown; ++i) {
    if (i) text += (i % 16 == 0) ? '\n' : ' ';
    text += digits[data[i] >> 4];
    text += digits[data[i] & 15];
  }
  if (shown < size) text += " ...";
  return text;
}

}  // namespace quorvel
