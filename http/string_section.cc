#include "http/string_section.h"

#include <algorithm>
#include <stdexcept>

namespace quorvel {

std::size_t StringSection::find(char c, std::size_t pos) const {
  if (pos >= size()) return npos;
  const void* hit = std::memchr(begin_ + pos, c, size() - pos);
  return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - begin_) : npos;
}

std::size_t StringSection::find(StringSection text, std::size_t pos) const {
  if (pos > size() || text.size() > size() - pos) return npos;
  if (text.empty()) return pos;
  const char* hit = std::search(begin_ + pos, end_, text.begin_, text.end_);
  return hit == end_ ? npos : static_cast<std::size_t>(hit - begin_);
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

bool StringSection::equalsIgnoreCase(StringSection other) const {
  if (size() != other.size()) return false;
  for (std::size_t i = 0; i < size(); ++i) {
    if (foldCase(begin_[i]) != foldCase(other.begin_[i])) return false;
  }
  return true;
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
