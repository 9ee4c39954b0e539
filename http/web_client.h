#pragma once

#include <cstddef>
#include <memory>

#include <boost/system/error_code.hpp>

#include "core/delegate.h"
#include "http/message_headers.h"
#include "http/web_request.h"

namespace quorvel {

// A response as the HTTP client delivers it: the head at once, the body
// through its source as it arrives. Connect the source to a sink (or set a
// body data handler on the request) to receive it.
class WebClientResponse {
 public:
  virtual ~WebClientResponse() = default;
  virtual const MessageHeaders& headers() const = 0;
  // Whether a body follows the head, by the body rule for the request this
  // answers: read once, as the head came.
  virtual bool hasBody() const = 0;
  virtual BodySource& body() = 0;
};

// One request through the HTTP client. Install the handlers, add fields to
// the headers, then send it whole or start a streamed body.
class WebClientRequest {
 public:
  // The response head has arrived.
  using ResponseHandler = Delegate<void(const std::shared_ptr<WebClientResponse>& response)>;
  // The exchange is over: a failure code, or success (a code that is not an
  // error) once the whole response body has been delivered.
  using ErrorHandler = Delegate<void(const boost::system::error_code& code)>;

  virtual ~WebClientRequest() = default;

  virtual void setResponseHandler(const ResponseHandler& handler) = 0;
  virtual void setErrorHandler(const ErrorHandler& handler) = 0;
  // Receives the response body pieces and their end instead of the
  // response's body source.
  virtual void setBodyDataHandler(const BodyDataHandler& handler) = 0;
  virtual MessageHeaders& headers() = 0;
  // Adds "Connection: close" (once) so the connection is not kept.
  virtual void setCloseConnection() = 0;
  // Sends the request with its whole body; a length of 0 sends none, any
  // other length sets Content-Length.
  virtual void send(const void* data, std::size_t length) = 0;
  // Sends the head now; the body follows through bodySink() until its end,
  // chunked unless Content-Length is already set. The sink may be fed before
  // this: what it holds then goes out with the head.
  virtual void startStreaming() = 0;
  virtual std::weak_ptr<BodySink> bodySink() = 0;
  virtual bool isStarted() const = 0;
  // No handler is called after this.
  virtual void cancel() = 0;
};

}  // namespace quorvel
