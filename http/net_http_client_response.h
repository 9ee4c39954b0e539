#pragma once

#include <utility>

#include "http/data_stream.h"
#include "http/message_headers.h"
#include "http/web_client.h"

namespace quorvel {

// The response NetHttpClient hands to a request's response handler: the
// parsed head, and the body source the request feeds unless the caller takes
// the body through a data handler instead.
class NetHttpClientResponse : public WebClientResponse {
 public:
  explicit NetHttpClientResponse(MessageHeaders headers) : headers_(std::move(headers)) {}
  const MessageHeaders& headers() const override { return headers_; }
  BodySource& body() override { return source_; }

 private:
  MessageHeaders headers_;
  BodySource source_;
};

}  // namespace quorvel
