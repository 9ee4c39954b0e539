#pragma once

#include <string>

#include <boost/system/error_code.hpp>

namespace quorvel {

// Why an HTTP client request ended without a complete response. They reach
// the request's error handler as codes of httpClientCategory() (name
// "httpclient"); message() gives the text for logs. A request that completed
// reports a code whose value is 0.
enum class HttpClientError : int {
  ResolveFailed = 1,     // "Failed to resolve host"
  ConnectFailed = 2,     // "Connection failed"
  SendFailed = 3,        // "Send failed"
  ConnectionLost = 4,    // "Connection lost before response received"
  ReceiveFailed = 5,     // "Receive error"
  BadResponse = 6,       // "Bad HTTP response format"
  HeadTooLarge = 7,      // "Response head too large"
  BadBody = 8,           // "Malformed or truncated response body"
  TimedOut = 9,          // "Request timed out"
  OutOfMemory = 10,      // "No buffer memory for the request"
  RequestBodyFailed = 11,  // "Request body could not be sent"
};

const boost::system::error_category& httpClientCategory();

inline boost::system::error_code make_error_code(HttpClientError error) {
  return boost::system::error_code(static_cast<int>(error), httpClientCategory());
}

}  // namespace quorvel

namespace boost {
namespace system {
template <>
struct is_error_code_enum<quorvel::HttpClientError> : std::true_type {};
}  // namespace system
}  // namespace boost
