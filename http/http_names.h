#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel {

// Every part of the HTTP stack spells protocol texts through these names, so a
// typo is a compile error rather than a header that silently never matches.
struct HttpVersion {
  static constexpr const char* V10 = "HTTP/1.0";
  static constexpr const char* V11 = "HTTP/1.1";
};

struct HttpHeader {
  static constexpr const char* Host = "Host";
  static constexpr const char* ContentLength = "Content-Length";
  static constexpr const char* TransferEncoding = "Transfer-Encoding";
  static constexpr const char* Connection = "Connection";
  static constexpr const char* Accept = "Accept";
  static constexpr const char* ContentType = "Content-Type";
  static constexpr const char* Authorization = "Authorization";
  static constexpr const char* Authenticate = "WWW-Authenticate";
  static constexpr const char* Location = "Location";
  static constexpr const char* CacheControl = "Cache-Control";
  static constexpr const char* Pragma = "Pragma";
  static constexpr const char* SetCookie = "Set-Cookie";
  static constexpr const char* Cookie = "Cookie";
  static constexpr const char* ForwardedFor = "X-Forwarded-For";
  static constexpr const char* ForwardedProto = "X-Forwarded-Proto";
};

struct HttpLineEnd {
  static constexpr const char* Text = "\r\n";
  static constexpr std::size_t Length = 2;
};

// One entry of the status table. Responses are built from an entry, never
// from a bare number, so the reason text always matches the code.
struct HttpStatus {
  uint32_t code;
  const char* reason;

  static const HttpStatus Ok;                   // 200
  static const HttpStatus Created;              // 201
  static const HttpStatus Accepted;             // 202
  static const HttpStatus BadRequest;           // 400
  static const HttpStatus Unauthorized;         // 401
  static const HttpStatus Forbidden;            // 403
  static const HttpStatus NotFound;             // 404
  static const HttpStatus MethodNotAllowed;     // 405
  static const HttpStatus Conflict;             // 409
  static const HttpStatus InternalServerError;  // 500
  static const HttpStatus BadGateway;           // 502

  // The table entry for a code, or null when the table has none.
  static const HttpStatus* find(uint32_t code);
};

}  // namespace quorvel
