#pragma once

#include <string>

#include "http/string_section.h"

namespace quorvel {

class MessageHeaders;

struct PercentEncoding {
  // Every byte outside the unreserved set becomes "%XX" (upper-case hex). A
  // zero byte is copied as it is: peers depend on that, so it stays.
  static std::string encode(StringSection text);
  // "%XX" (either case) becomes the byte; everything else, "+" included, is
  // copied. Throws std::runtime_error on a short or non-hex escape.
  static std::string decode(StringSection text);
};

struct Base64 {
  // Standard alphabet, "=" padding, no line breaks.
  static std::string encode(StringSection data);
};

// Adds "Authorization: Basic <base64 of user:password>".
void setBasicAuthorization(MessageHeaders& headers, StringSection user, StringSection password);

}  // namespace quorvel
