#pragma once

#include <cstddef>
#include <cstring>

namespace quorvel {

// Finds the empty line that ends a message head ("\r\n\r\n") in bytes that
// arrive in pieces. Each byte is looked at once: a separator split over two
// pieces is still found, without searching earlier pieces again. Response
// heads (ResponseHeadReader) and relayed request heads are collected with it.
class HeadEndFinder {
 public:
  static constexpr std::size_t SeparatorLength = 4;

  // Looks at [first, last) and returns where the separator ends in it (the
  // position after its last byte), or `last` when it has not ended yet.
  // Nothing more is looked for once it has been found. Outside a partial
  // match only a '\r' can start one, so the bytes up to it are skipped by
  // memchr rather than walked one at a time, and so is the end of every line
  // but the last when the piece holds the byte after it.
  const char* feed(const char* first, const char* last) {
    while (first != last && matched_ != 4) {
      if (matched_ == 0) {
        const void* cr = std::memchr(first, '\r', static_cast<std::size_t>(last - first));
        const char* skipTo = cr ? static_cast<const char*>(cr) : last;
        scanned_ += static_cast<std::size_t>(skipTo - first);
        first = skipTo;
        if (first == last) break;
        // The end of a line that another line follows: both bytes at once.
        if (last - first >= 3 && first[1] == '\n' && first[2] != '\r') {
          first += 2;
          scanned_ += 2;
          continue;
        }
      }
      matched_ = next(matched_, static_cast<unsigned char>(*first++));
      ++scanned_;
      if (matched_ == 4) return first;
    }
    return last;
  }

  bool found() const { return matched_ == 4; }
  // Bytes fed up to the end of the separator, once found: the head's size
  // with its empty line.
  std::size_t headEnd() const { return scanned_; }
  void reset() { matched_ = 0, scanned_ = 0; }

 private:
  // Bytes of the separator matched at the end of what was looked at.
  static int next(int matched, unsigned char byte) {
    if (byte == '\r') return matched == 2 ? 3 : 1;
    if (byte == '\n' && (matched == 1 || matched == 3)) return matched + 1;
    return 0;
  }

  int matched_ = 0;
  std::size_t scanned_ = 0;
};

}  // namespace quorvel
