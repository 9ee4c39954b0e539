#pragma once

#include <utility>

#include "http/data_stream.h"
#include "http/message_headers.h"
#include "http/web_client.h"

namespace quorvel {

// The response NetHttpClient hands to a request's response handler: the
// parsed head, and the body source the request feeds unless the caller takes
// the body through a data handler instead. It lives in its request and is
// used for one response after another.
class NetHttpClientResponse : public WebClientResponse {
 public:
  NetHttpClientResponse() = default;
  explicit NetHttpClientResponse(MessageHeaders headers) : headers_(std::move(headers)) {}
  const MessageHeaders& headers() const override { return headers_; }
  bool hasBody() const override { return hasBody_; }
  BodySource& body() override { return source_; }

  // The head arrives here; what was here goes back to be parsed into next.
  MessageHeaders& head() { return headers_; }
  void setHasBody(bool hasBody) { hasBody_ = hasBody; }
  // For the next response: a sink the last body went to hears no more.
  void reset() { source_.reset(); }

 private:
  MessageHeaders headers_;
  bool hasBody_ = false;
  BodySource source_;
};

}  // namespace quorvel
