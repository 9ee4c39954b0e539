#include "http/message_headers.h"

#include <cstring>

#include "http/message_headers_detail.h"

// Walking and searching the fields of a head, and the rules read from them.
namespace quorvel {

using message_headers_detail::FramingNameList;
using message_headers_detail::trimmed;

MessageHeaders::FieldIterator::FieldIterator(const char* line, const char* end) : line_(line), end_(end) {
  if (line_ >= end_) {
    line_ = nullptr;
  } else {
    load();
  }
}

const char* MessageHeaders::FieldIterator::extend() {
  const char* lineEnd = findLineEnd(line_, end_);
  if (!lineEnd) lineEnd = end_;
  // Lines that begin with white space continue the value of this field.
  while (lineEnd + HttpLineEnd::Length < end_ && isWhiteSpace(lineEnd[HttpLineEnd::Length])) {
    const char* more = findLineEnd(lineEnd + HttpLineEnd::Length, end_);
    lineEnd = more ? more : end_;
  }
  next_ = lineEnd + HttpLineEnd::Length;
  return lineEnd;
}

void MessageHeaders::FieldIterator::decode(const char* lineEnd) {
  const char* colon = static_cast<const char*>(std::memchr(line_, ':', static_cast<std::size_t>(lineEnd - line_)));
  if (!colon) {
    field_ = Field{trimmed(line_, lineEnd), StringSection()};
  } else {
    field_ = Field{trimmed(line_, colon), trimmed(colon + 1, lineEnd)};
  }
}

MessageHeaders::FieldIterator& MessageHeaders::FieldIterator::operator++() {
  line_ = next_;
  if (line_ >= end_) {
    line_ = nullptr;
    field_ = Field();
  } else {
    load();
  }
  return *this;
}

MessageHeaders::FieldIterator MessageHeaders::begin() const {
  if (!buffer_) return FieldIterator();
  return FieldIterator(buffer_.get() + fieldsStart_, buffer_.get() + length_);
}

MessageHeaders::FieldIterator MessageHeaders::find(StringSection name) const {
  FieldIterator found;
  findFields(&name, &found, 1);
  return found;
}

MessageHeaders::FieldIterator MessageHeaders::findAfter(StringSection name, const FieldIterator& field) const {
  FieldIterator found;
  if (field != end()) findFrom(field.next_, &name, &found, 1);
  return found;
}

void MessageHeaders::findFields(const StringSection* names, FieldIterator* found, std::size_t count) const {
  findFrom(buffer_ ? buffer_.get() + fieldsStart_ : nullptr, names, found, count);
}

void MessageHeaders::findFrom(const char* line, const StringSection* names, FieldIterator* found,
                              std::size_t count) const {
  // Most heads are searched for a few names, each several times: only a line
  // whose first letter is one of theirs is decoded and compared.
  constexpr std::size_t MaxNames = 8;
  char firsts[MaxNames];
  std::size_t missing = 0;
  for (std::size_t i = 0; i < count; ++i) {
    found[i] = end();
    if (i < MaxNames) firsts[i] = names[i].empty() ? '\0' : foldCase(names[i][0]);
    ++missing;
  }
  if (!buffer_ || !line) return;
  FieldIterator it;
  it.end_ = buffer_.get() + length_;
  for (it.line_ = line; it.line_ < it.end_ && missing > 0; it.line_ = it.next_) {
    const char* lineEnd = it.extend();
    const char* start = it.line_;
    while (start != lineEnd && isWhiteSpace(*start)) ++start;
    const char first = start == lineEnd ? '\0' : foldCase(*start);
    bool decoded = false;
    for (std::size_t i = 0; i < count; ++i) {
      if (found[i] != end()) continue;
      if (i < MaxNames && !names[i].empty() && firsts[i] != first) continue;
      if (!decoded) {
        it.decode(lineEnd);
        decoded = true;
      }
      if (!it.field_.name.equalsIgnoreCase(names[i])) continue;
      found[i] = it;
      --missing;
    }
  }
}

// ---- rules

void MessageHeaders::knowFraming() const {
  if (framingKnown_ || !buffer_) return;
  FieldIterator found[FramingNames];
  findFields(FramingNameList, found, FramingNames);
  for (std::size_t i = 0; i < FramingNames; ++i) {
    framingAt_[i] = found[i] == end() ? 0 : static_cast<uint32_t>(found[i].line_ - buffer_.get());
  }
  framingKnown_ = true;
}

MessageHeaders::FieldIterator MessageHeaders::framingField(FramingField which) const {
  if (!buffer_) return end();
  knowFraming();
  const uint32_t offset = framingAt_[static_cast<std::size_t>(which)];
  return offset == 0 ? end() : FieldIterator(buffer_.get() + offset, buffer_.get() + length_);
}

MessageHeaders::Framing MessageHeaders::framing() const {
  return Framing{framingField(FramingField::ContentLength), framingField(FramingField::TransferEncoding)};
}

bool MessageHeaders::Framing::chunked() const {
  return encoding != FieldIterator() && encoding->value.equalsIgnoreCase("chunked");
}

bool MessageHeaders::hasBody(StringSection requestMethod, const Framing& framing) const {
  if (statusCode_ != 0) {
    if (requestMethod == StringSection("HEAD") || statusCode_ < 200 || statusCode_ == 204 || statusCode_ == 304) {
      return false;
    }
  }
  if (framing.length != end()) {
    uint32_t value = 0;
    // A length that cannot be read is not a length of 0: the body is there,
    // its framing just is not known.
    return !parseUnsigned(framing.length->value, value) || value != 0;
  }
  if (statusCode_ != 0) return true;
  return framing.chunked();
}

void MessageHeaders::addNoCacheFields() {
  if (has(HttpHeader::CacheControl)) return;
  addField(HttpHeader::CacheControl, "no-cache");
  addField(HttpHeader::Pragma, "no-cache");
}

}  // namespace quorvel
