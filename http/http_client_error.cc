#include "http/http_client_error.h"

#include "http/response_head_reader.h"

namespace quorvel {
namespace {

class HttpClientCategory : public boost::system::error_category {
 public:
  const char* name() const noexcept override { return "httpclient"; }

  std::string message(int value) const override {
    switch (static_cast<HttpClientError>(value)) {
      case HttpClientError::ResolveFailed:
        return "Failed to resolve host";
      case HttpClientError::ConnectFailed:
        return "Connection failed";
      case HttpClientError::SendFailed:
        return "Send failed";
      case HttpClientError::ConnectionLost:
        return "Connection lost before response received";
      case HttpClientError::ReceiveFailed:
        return "Receive error";
      case HttpClientError::BadResponse:
        return ResponseHeadReader::BadFormatText;
      case HttpClientError::HeadTooLarge:
        return "Response head too large";
      case HttpClientError::BadBody:
        return "Malformed or truncated response body";
      case HttpClientError::TimedOut:
        return "Request timed out";
      case HttpClientError::OutOfMemory:
        return "No buffer memory for the request";
      case HttpClientError::RequestBodyFailed:
        return "Request body could not be sent";
    }
    return value == 0 ? "Success" : "Unknown HTTP client error " + std::to_string(value);
  }
};

}  // namespace

const boost::system::error_category& httpClientCategory() {
  static const HttpClientCategory category;
  return category;
}

}  // namespace quorvel
