#include "http/http_client_error.h"

#include <iterator>

#include "http/response_head_reader.h"

namespace quorvel {
namespace {

// Indexed by the code's value.
const char* const Texts[] = {
    "Success",
    "Failed to resolve host",
    "Connection failed",
    "Send failed",
    "Connection lost before response received",
    "Receive error",
    ResponseHeadReader::BadFormatText,
    "Response head too large",
    "Malformed or truncated response body",
    "Request timed out",
    "No buffer memory for the request",
    "Request body could not be sent",
};
static_assert(std::size(Texts) == static_cast<std::size_t>(HttpClientError::RequestBodyFailed) + 1,
              "one text per code");

class HttpClientCategory : public boost::system::error_category {
 public:
  const char* name() const noexcept override { return "httpclient"; }

  std::string message(int value) const override {
    if (value >= 0 && static_cast<std::size_t>(value) < std::size(Texts)) return Texts[value];
    return "Unknown HTTP client error " + std::to_string(value);
  }
};

}  // namespace

const boost::system::error_category& httpClientCategory() {
  static const HttpClientCategory category;
  return category;
}

}  // namespace quorvel
