#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>

namespace quorvel {

// A view of text that someone else owns. Header names and values, URL parts
// and start-line pieces are handed around as sections so that parsing never
// copies; the owner must outlive every section into its text.
class StringSection {
 public:
  static constexpr std::size_t npos = std::string::npos;

  constexpr StringSection() : begin_(nullptr), end_(nullptr) {}
  constexpr StringSection(const char* begin, const char* end) : begin_(begin), end_(end) {}
  constexpr StringSection(const char* begin, std::size_t size) : begin_(begin), end_(begin + size) {}
  StringSection(const char* text) : begin_(text), end_(text ? text + std::strlen(text) : text) {}  // NOLINT
  StringSection(const std::string& text) : begin_(text.data()), end_(text.data() + text.size()) {}  // NOLINT

  std::size_t size() const { return static_cast<std::size_t>(end_ - begin_); }
  bool empty() const { return begin_ == end_; }
  char operator[](std::size_t pos) const { return begin_[pos]; }
  const char* begin() const { return begin_; }
  const char* end() const { return end_; }
  const char* data() const { return begin_; }

  std::size_t find(char c, std::size_t pos = 0) const;
  std::size_t find(StringSection text, std::size_t pos = 0) const;
  // The last occurrence strictly before pos (npos: the whole section).
  std::size_t rfind(char c, std::size_t pos = npos) const;

  // Throws std::out_of_range for pos > size().
  StringSection substr(std::size_t pos, std::size_t count = npos) const;
  StringSection trim() const;

  bool equals(StringSection other) const;
  bool equalsIgnoreCase(StringSection other) const;
  bool startsWith(StringSection prefix) const;

  std::string str() const { return std::string(begin_, end_); }

 private:
  const char* begin_;
  const char* end_;
};

inline bool operator==(StringSection a, StringSection b) { return a.equals(b); }
inline bool operator!=(StringSection a, StringSection b) { return !a.equals(b); }
// For test output. A template, so that nothing in the daemon links iostreams.
template <class Char, class Traits>
std::basic_ostream<Char, Traits>& operator<<(std::basic_ostream<Char, Traits>& out, StringSection text) {
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

// Blank, tab, CR, LF, VT, FF: the characters trimmed from header names and
// values. Locale-independent on purpose.
inline bool isWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Reads the whole section as an unsigned number in base 10 or 16: at least one
// digit, nothing else, no overflow of 32 bits.
bool parseUnsigned(StringSection text, uint32_t& value, int base = 10);

inline char foldCase(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c; }

}  // namespace quorvel
