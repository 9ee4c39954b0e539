#include "http/text_codecs.h"

#include <cstring>
#include <stdexcept>

#include "http/http_names.h"
#include "http/message_headers.h"

namespace quorvel {
namespace {

const char Unreserved[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-._~";
const char HexDigits[] = "0123456789ABCDEF";
const char Base64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string PercentEncoding::encode(StringSection text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    // strchr also matches the set's terminator, which is how a zero byte
    // comes to be copied unescaped.
    if (std::strchr(Unreserved, c)) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += '%';
      out += HexDigits[byte >> 4];
      out += HexDigits[byte & 0xf];
    }
  }
  return out;
}

std::string PercentEncoding::decode(StringSection text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (text.size() - i < 3) throw std::runtime_error("Unexpected end of input in percent-encoded text");
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) throw std::runtime_error("Bad hex character in percent-encoded text");
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

std::string Base64::encode(StringSection data) {
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  const auto* p = reinterpret_cast<const unsigned char*>(data.data());
  std::size_t left = data.size();
  for (; left >= 3; left -= 3, p += 3) {
    const uint32_t group = (uint32_t{p[0]} << 16) | (uint32_t{p[1]} << 8) | p[2];
    out += Base64Alphabet[group >> 18];
    out += Base64Alphabet[(group >> 12) & 0x3f];
    out += Base64Alphabet[(group >> 6) & 0x3f];
    out += Base64Alphabet[group & 0x3f];
  }
  if (left > 0) {
    const uint32_t group = (uint32_t{p[0]} << 16) | (left == 2 ? uint32_t{p[1]} << 8 : 0);
    out += Base64Alphabet[group >> 18];
    out += Base64Alphabet[(group >> 12) & 0x3f];
    out += left == 2 ? Base64Alphabet[(group >> 6) & 0x3f] : '=';
    out += '=';
  }
  return out;
}

void setBasicAuthorization(MessageHeaders& headers, StringSection user, StringSection password) {
  headers.addField(HttpHeader::Authorization, "Basic " + Base64::encode(user.str() + ":" + password.str()));
}

}  // namespace quorvel
