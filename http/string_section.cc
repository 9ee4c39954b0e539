#include "http/string_section.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace quorvel {
namespace {

constexpr uint64_t EveryByte = 0x0101010101010101ULL;
constexpr uint64_t HighBits = 0x8080808080808080ULL;

// Eight bytes with A-Z lowered, as foldCase() lowers one. Each byte is worked
// on alone (no sum carries out of its byte), so byte order does not matter.
uint64_t foldCase8(uint64_t x) {
  const uint64_t low7 = x & ~HighBits;
  const uint64_t atLeastA = low7 + (0x80 - 'A') * EveryByte;
  const uint64_t aboveZ = low7 + (0x80 - 'Z' - 1) * EveryByte;
  const uint64_t upper = atLeastA & ~aboveZ & ~x & HighBits;
  return x | (upper >> 2);
}

uint64_t load8(const char* p) {
  uint64_t value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

}  // namespace

std::size_t StringSection::find(char c, std::size_t pos) const {
  if (pos >= size()) return npos;
  const void* hit = std::memchr(begin_ + pos, c, size() - pos);
  return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - begin_) : npos;
}

std::size_t StringSection::find(StringSection text, std::size_t pos) const {
  if (pos > size() || text.size() > size() - pos) return npos;
  if (text.empty()) return pos;
  // The first byte by memchr, the rest compared where it is: texts looked
  // for here are short, and cheaper so than by a general search.
  const char* const last = end_ - text.size();
  for (const char* at = begin_ + pos; at <= last; ++at) {
    at = static_cast<const char*>(std::memchr(at, text.begin_[0], static_cast<std::size_t>(last - at) + 1));
    if (!at) return npos;
    if (std::memcmp(at + 1, text.begin_ + 1, text.size() - 1) == 0) return static_cast<std::size_t>(at - begin_);
  }
  return npos;
}

std::size_t StringSection::rfind(char c, std::size_t pos) const {
  for (std::size_t i = std::min(pos, size()); i > 0; --i) {
    if (begin_[i - 1] == c) return i - 1;
  }
  return npos;
}

StringSection StringSection::substr(std::size_t pos, std::size_t count) const {
  if (pos > size()) throw std::out_of_range("StringSection::substr pos out of range");
  return StringSection(begin_ + pos, std::min(count, size() - pos));
}

StringSection StringSection::trim() const {
  const char* b = begin_;
  const char* e = end_;
  while (b != e && isWhiteSpace(*b)) ++b;
  while (e != b && isWhiteSpace(e[-1])) --e;
  return b == e ? StringSection() : StringSection(b, e);
}

bool StringSection::equals(StringSection other) const {
  return size() == other.size() && (empty() || std::memcmp(begin_, other.begin_, size()) == 0);
}

// Field names are compared this way on every search of a head: eight bytes
// at a time, the last eight overlapping what was compared before.
bool StringSection::equalsIgnoreCase(StringSection other) const {
  const std::size_t n = size();
  if (n != other.size()) return false;
  const char* a = begin_;
  const char* b = other.begin_;
  if (n < 8) {
    for (std::size_t i = 0; i < n; ++i) {
      if (foldCase(a[i]) != foldCase(b[i])) return false;
    }
    return true;
  }
  for (std::size_t i = 0; i + 8 < n; i += 8) {
    if (foldCase8(load8(a + i)) != foldCase8(load8(b + i))) return false;
  }
  return foldCase8(load8(a + n - 8)) == foldCase8(load8(b + n - 8));
}

bool StringSection::startsWith(StringSection prefix) const {
  return prefix.size() <= size() && substr(0, prefix.size()).equals(prefix);
}

bool parseUnsigned(StringSection text, uint32_t& value, int base) {
  if (text.empty()) return false;
  uint64_t result = 0;
  for (char c : text) {
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && foldCase(c) >= 'a' && foldCase(c) <= 'f') {
      digit = foldCase(c) - 'a' + 10;
    } else {
      return false;
    }
    result = result * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
    if (result > 0xffffffffu) return false;
  }
  value = static_cast<uint32_t>(result);
  return true;
}

}  // namespace quorvel
