#include "http/message_headers.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include "http/message_headers_detail.h"

namespace quorvel {

using message_headers_detail::FramingNameList;
using message_headers_detail::trimmed;

namespace {

constexpr char CRLF[] = "\r\n";

std::size_t decimalDigits(uint32_t value) {
  std::size_t digits = 1;
  while (value >= 10) {
    value /= 10;
    ++digits;
  }
  return digits;
}

char* put(char* out, StringSection text) {
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

char* putDecimal(char* out, uint32_t value, std::size_t digits) {
  for (std::size_t i = digits; i > 0; --i) {
    out[i - 1] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  return out + digits;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The line [line, lineEnd), whose first colon is at `colon`, is what
// appendLine() writes for its field: nothing around the name to trim, and
// one blank between the colon and a value with nothing around it.
bool isVerbatimField(const char* line, const char* colon, const char* lineEnd) {
  if (colon != line && (isWhiteSpace(*line) || isWhiteSpace(colon[-1]))) return false;
  if (lineEnd - colon < 2 || colon[1] != ' ') return false;
  return lineEnd - colon == 2 || (!isWhiteSpace(colon[2]) && !isWhiteSpace(lineEnd[-1]));
}

// Which framing name a name of this length could be (they differ in length),
// or -1.
int framingIndexByLength(std::size_t length) {
  constexpr std::size_t ContentLength = std::char_traits<char>::length(HttpHeader::ContentLength);
  constexpr std::size_t TransferEncoding = std::char_traits<char>::length(HttpHeader::TransferEncoding);
  constexpr std::size_t Connection = std::char_traits<char>::length(HttpHeader::Connection);
  static_assert(ContentLength != TransferEncoding && ContentLength != Connection && TransferEncoding != Connection);
  switch (length) {
    case ContentLength:
      return 0;
    case TransferEncoding:
      return 1;
    case Connection:
      return 2;
  }
  return -1;
}

}  // namespace

const char* findLineEnd(const char* begin, const char* end) {
  while (begin != end) {
    const char* cr = static_cast<const char*>(std::memchr(begin, '\r', static_cast<std::size_t>(end - begin)));
    // A CR that ends the text may be the first half of a line end still to come.
    if (!cr || cr + 1 == end) return nullptr;
    if (cr[1] == '\n') return cr;
    begin = cr + 1;
  }
  return nullptr;
}

// ---- construction and copies

MessageHeaders::MessageHeaders(const MessageHeaders& other) {
  copyLayout(other);
  if (other.buffer_) {
    buffer_.reset(new char[capacity_]);
    std::memcpy(buffer_.get(), other.buffer_.get(), length_ + HttpLineEnd::Length);
  }
}

// Moves take the block and the layout and empty the other head, without
// the three-way swap: heads are moved several times on every exchange.
MessageHeaders::MessageHeaders(MessageHeaders&& other) noexcept : buffer_(std::move(other.buffer_)) {
  copyLayout(other);
  other.reset();
}

MessageHeaders& MessageHeaders::operator=(const MessageHeaders& other) {
  if (this != &other) *this = MessageHeaders(other);
  return *this;
}

MessageHeaders& MessageHeaders::operator=(MessageHeaders&& other) noexcept {
  if (this != &other) {
    buffer_ = std::move(other.buffer_);
    copyLayout(other);
    other.reset();
  }
  return *this;
}

void MessageHeaders::copyLayout(const MessageHeaders& other) {
  length_ = other.length_;
  capacity_ = other.capacity_;
  method_ = other.method_;
  target_ = other.target_;
  version_ = other.version_;
  reason_ = other.reason_;
  statusCode_ = other.statusCode_;
  fieldsStart_ = other.fieldsStart_;
  framingAt_ = other.framingAt_;
  framingKnown_ = other.framingKnown_;
  fieldsVerbatim_ = other.fieldsVerbatim_;
}

void MessageHeaders::reset() {
  buffer_.reset();
  capacity_ = 0;
  clearViews();
}

void MessageHeaders::clearViews() {
  length_ = 0;
  method_ = target_ = version_ = reason_ = View();
  statusCode_ = 0;
  fieldsStart_ = 0;
  fieldsVerbatim_ = false;
}

void MessageHeaders::swap(MessageHeaders& other) noexcept {
  // Member by member: heads are handed back and forth on every response.
  std::swap(buffer_, other.buffer_);
  std::swap(length_, other.length_);
  std::swap(capacity_, other.capacity_);
  std::swap(method_, other.method_);
  std::swap(target_, other.target_);
  std::swap(version_, other.version_);
  std::swap(reason_, other.reason_);
  std::swap(statusCode_, other.statusCode_);
  std::swap(fieldsStart_, other.fieldsStart_);
  std::swap(framingAt_, other.framingAt_);
  std::swap(framingKnown_, other.framingKnown_);
  std::swap(fieldsVerbatim_, other.fieldsVerbatim_);
}

void MessageHeaders::allocateStartLine(std::size_t lineLength) {
  // A start line that fills the block to its last byte or two still needs
  // room for the final empty line: that takes one more block.
  capacity_ = lineLength + HttpLineEnd::Length <= BlockSize ? BlockSize : 2 * BlockSize;
  buffer_.reset(new char[capacity_]);
}

void MessageHeaders::finishStartLine(std::size_t lineLength) {
  char* out = buffer_.get() + lineLength - HttpLineEnd::Length;
  std::memcpy(out, CRLF, 2);
  std::memcpy(out + 2, CRLF, 2);
  length_ = lineLength;
  fieldsStart_ = static_cast<uint32_t>(lineLength);
  framingAt_.fill(0);
  framingKnown_ = true;
  fieldsVerbatim_ = true;
}

MessageHeaders MessageHeaders::response(uint32_t code, StringSection reason, StringSection version) {
  MessageHeaders headers;
  const std::size_t digits = decimalDigits(code);
  const std::size_t lineLength = version.size() + digits + reason.size() + 4;
  if (lineLength > BlockSize) return headers;
  headers.allocateStartLine(lineLength);
  char* start = headers.buffer_.get();
  char* out = put(start, version);
  headers.version_ = View{0, static_cast<uint32_t>(out - start)};
  *out++ = ' ';
  out = putDecimal(out, code, digits);
  *out++ = ' ';
  const uint32_t reasonBegin = static_cast<uint32_t>(out - start);
  out = put(out, reason);
  headers.reason_ = View{reasonBegin, static_cast<uint32_t>(out - start)};
  headers.statusCode_ = code;
  headers.finishStartLine(lineLength);
  return headers;
}

MessageHeaders MessageHeaders::request(StringSection method, StringSection target, StringSection version) {
  MessageHeaders headers;
  headers.assignRequest(method, target, version);
  return headers;
}

void MessageHeaders::assignRequest(StringSection method, StringSection target, StringSection version) {
  const std::size_t lineLength = method.size() + target.size() + version.size() + 4;
  if (lineLength > BlockSize) return reset();
  clearViews();
  if (!buffer_ || capacity_ < lineLength + HttpLineEnd::Length) allocateStartLine(lineLength);
  char* start = buffer_.get();
  char* out = put(start, method);
  method_ = View{0, static_cast<uint32_t>(out - start)};
  *out++ = ' ';
  uint32_t begin = static_cast<uint32_t>(out - start);
  out = put(out, target);
  target_ = View{begin, static_cast<uint32_t>(out - start)};
  *out++ = ' ';
  begin = static_cast<uint32_t>(out - start);
  out = put(out, version);
  version_ = View{begin, static_cast<uint32_t>(out - start)};
  finishStartLine(lineLength);
}

// ---- parsing

MessageHeaders MessageHeaders::parse(Kind kind, const char* data, std::size_t size) {
  return parseGathered(kind, size, [data, size](char* out) {
    if (size) std::memcpy(out, data, size);
  });
}

void MessageHeaders::parseInPlace(Kind kind, std::size_t size) {
  const char* const start = buffer_.get();
  const char* const end = start + size;
  auto offset = [start](const char* p) { return static_cast<uint32_t>(p - start); };

  // Start line: three non-empty parts split at the first two blanks.
  const char* lineEnd = findLineEnd(start, end);
  if (!lineEnd) return reset();
  const char* blank1 = static_cast<const char*>(std::memchr(start, ' ', static_cast<std::size_t>(lineEnd - start)));
  if (!blank1 || blank1 == start) return reset();
  const char* second = blank1 + 1;
  const char* blank2 =
      static_cast<const char*>(std::memchr(second, ' ', static_cast<std::size_t>(lineEnd - second)));
  if (!blank2 || blank2 == second || blank2 + 1 == lineEnd) return reset();
  const char* third = blank2 + 1;
  if (kind == Kind::Request) {
    if (std::memchr(third, ' ', static_cast<std::size_t>(lineEnd - third))) return reset();
    method_ = View{0, offset(blank1)};
    target_ = View{offset(second), offset(blank2)};
    version_ = View{offset(third), offset(lineEnd)};
    statusCode_ = 0;
  } else {
    if (blank2 - second != 3 || !isDigit(second[0]) || !isDigit(second[1]) || !isDigit(second[2])) return reset();
    version_ = View{0, offset(blank1)};
    statusCode_ = static_cast<uint32_t>((second[0] - '0') * 100 + (second[1] - '0') * 10 + (second[2] - '0'));
    reason_ = View{offset(third), offset(lineEnd)};
  }

  const char* line = lineEnd + HttpLineEnd::Length;
  fieldsStart_ = offset(line);
  framingAt_.fill(0);
  bool first = true;
  bool verbatim = true;
  while (line < end) {
    lineEnd = findLineEnd(line, end);
    if (!lineEnd) return reset();
    if (lineEnd == line) {
      // The empty line that ends a head: only as the very last line.
      if (lineEnd + HttpLineEnd::Length != end) return reset();
      break;
    }
    const char* colon = static_cast<const char*>(std::memchr(line, ':', static_cast<std::size_t>(lineEnd - line)));
    // A line that begins with white space continues the field before it,
    // except the first, which a search reads as a field of its own.
    if (first || !isWhiteSpace(*line)) {
      if (!colon) return reset();
      noteFraming(line, colon);
    }
    verbatim = verbatim && colon && isVerbatimField(line, colon, lineEnd);
    first = false;
    line = lineEnd + HttpLineEnd::Length;
  }
  length_ = offset(line);
  std::memcpy(buffer_.get() + length_, CRLF, HttpLineEnd::Length);
  framingKnown_ = true;
  fieldsVerbatim_ = verbatim;
}

void MessageHeaders::noteFraming(const char* line, const char* colon) {
  // Every line of every parsed head comes here: most are ruled out by their
  // length alone, and only names padded with white space need trimming.
  const bool padded = isWhiteSpace(*line) || (colon != line && isWhiteSpace(colon[-1]));
  const StringSection name = padded ? trimmed(line, colon) : StringSection(line, colon);
  const int i = framingIndexByLength(name.size());
  if (i < 0 || framingAt_[i] != 0 || !name.equalsIgnoreCase(FramingNameList[i])) return;
  framingAt_[i] = static_cast<uint32_t>(line - buffer_.get());
}

// ---- fields

void MessageHeaders::addField(StringSection name, StringSection value) {
  if (!buffer_) throw std::logic_error("Can't add a field to invalid MessageHeaders");
  fieldsVerbatim_ = false;
  // Looked for again when next asked: a head being built is rarely asked
  // before it is complete.
  framingKnown_ = false;
  appendLine(name, value);
}

void MessageHeaders::appendFields(const MessageHeaders& other) {
  if (!buffer_) throw std::logic_error("Can't add a field to invalid MessageHeaders");
  if (!other.buffer_) return;
  if (&other == this) {
    // Appending would move the text being read.
    appendFields(MessageHeaders(other));
    return;
  }
  // The other head's framing lines, to be known again where they land here
  // (which matters only while this head's own are known).
  other.knowFraming();
  if (other.fieldsVerbatim_) {
    // Line for line what the walk below would write: one copy.
    const std::size_t size = other.length_ - other.fieldsStart_;
    reserveFields(size);
    const uint32_t at = static_cast<uint32_t>(length_);
    std::memcpy(buffer_.get() + length_, other.buffer_.get() + other.fieldsStart_, size);
    length_ += size;
    std::memcpy(buffer_.get() + length_, CRLF, HttpLineEnd::Length);
    for (std::size_t i = 0; i < FramingNames; ++i) {
      if (other.framingAt_[i] != 0 && framingAt_[i] == 0) framingAt_[i] = at + other.framingAt_[i] - other.fieldsStart_;
    }
    // The lines added read as written: this head's own decide.
    return;
  }
  fieldsVerbatim_ = false;
  const char* framingLines[FramingNames] = {};
  for (std::size_t i = 0; i < FramingNames; ++i) {
    if (other.framingAt_[i] != 0) framingLines[i] = other.buffer_.get() + other.framingAt_[i];
  }
  for (FieldIterator field = other.begin(); field != other.end(); ++field) {
    const uint32_t at = static_cast<uint32_t>(length_);
    appendLine(field->name, field->value);
    for (std::size_t i = 0; i < FramingNames; ++i) {
      if (field.line_ == framingLines[i] && framingAt_[i] == 0) framingAt_[i] = at;
    }
  }
}

void MessageHeaders::reserveFields(std::size_t extra) {
  const std::size_t needed = length_ + HttpLineEnd::Length + extra;
  if (needed <= capacity_) return;
  const std::size_t grown = capacity_ + (needed - capacity_ + BlockSize - 1) / BlockSize * BlockSize;
  std::unique_ptr<char[]> bigger(new char[grown]);
  std::memcpy(bigger.get(), buffer_.get(), length_);
  // Views are offsets into the block, so moving the text re-bases them.
  buffer_ = std::move(bigger);
  capacity_ = grown;
}

void MessageHeaders::appendLine(StringSection name, StringSection value) {
  const std::size_t lineLength = name.size() + value.size() + 4;
  reserveFields(lineLength);
  char* out = put(buffer_.get() + length_, name);
  *out++ = ':';
  *out++ = ' ';
  out = put(out, value);
  std::memcpy(out, CRLF, 2);
  std::memcpy(out + 2, CRLF, 2);
  length_ += lineLength;
}

void MessageHeaders::addField(StringSection name, uint32_t value) {
  char digits[10];
  const std::size_t count = decimalDigits(value);
  putDecimal(digits, value, count);
  addField(name, StringSection(digits, count));
}

}  // namespace quorvel
