#pragma once

#include <cstddef>
#include <cstring>

#include "http/message_headers.h"

namespace quorvel {
namespace fuzzing {

// What must hold for any head that parsed: the wire form parses again to the
// same text, every field can be found by its name, and growing it keeps the
// start line.
inline void checkHead(MessageHeaders::Kind kind, const MessageHeaders& headers) {
  if (!headers.isValid()) {
    if (headers.size() != 0 || !headers.version().empty()) __builtin_trap();
    return;
  }
  const MessageHeaders again = MessageHeaders::parse(kind, headers.data(), headers.size());
  if (!again.isValid() || again.size() != headers.size() ||
      std::memcmp(again.data(), headers.data(), headers.size()) != 0) {
    __builtin_trap();
  }
  std::size_t fields = 0;
  for (const auto& field : headers) {
    if (headers.find(field.name) == headers.end()) __builtin_trap();
    ++fields;
  }
  (void)headers.hasBody("GET");
  MessageHeaders grown = headers;
  grown.addField("X-Fuzz", std::string(700, 'f'));
  if (grown.version() != headers.version() || grown.statusCode() != headers.statusCode()) __builtin_trap();
  std::size_t grownFields = 0;
  for (auto it = grown.begin(); it != grown.end(); ++it) ++grownFields;
  if (grownFields != fields + 1) __builtin_trap();
}

}  // namespace fuzzing
}  // namespace quorvel
