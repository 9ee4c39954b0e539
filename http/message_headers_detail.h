#pragma once

#include <cstddef>

#include "http/http_names.h"
#include "http/string_section.h"

// What the two source files of MessageHeaders share; no other unit uses it.
namespace quorvel {
namespace message_headers_detail {

// Every search walks the fields through here, so it stays out of the
// general-purpose section helpers.
inline StringSection trimmed(const char* begin, const char* end) {
  while (begin != end && isWhiteSpace(*begin)) ++begin;
  while (end != begin && isWhiteSpace(end[-1])) --end;
  return begin == end ? StringSection() : StringSection(begin, end);
}

// The framing names, in the order of MessageHeaders::FramingField.
inline const StringSection FramingNameList[] = {HttpHeader::ContentLength, HttpHeader::TransferEncoding,
                                                HttpHeader::Connection};

}  // namespace message_headers_detail
}  // namespace quorvel
