#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "http/data_stream.h"
#include "http/http_names.h"
#include "http/message_headers.h"
#include "net/buffer_chain_ptr.h"

namespace quorvel {

class WebResponse;

// Pieces of a body; `end` marks the last call (the piece is then null).
using BodyDataHandler = DataHandler<BufferChainPtr>;
using BodySink = DataSinkImpl<BufferChainPtr>;
using BodySource = DataSourceImpl<BufferChainPtr>;

// What is known of the party a request came from.
struct WebClientInfo {
  // The client's address as text; empty when not known.
  std::string address;
};

// A request as an in-process handler sees it, whoever delivered it.
class WebRequest {
 public:
  virtual ~WebRequest() = default;

  // Receives the body pieces that follow, and the end. Pieces that arrived
  // before it was set are delivered to it first.
  virtual void setBodyDataHandler(const BodyDataHandler& handler) = 0;
  virtual const MessageHeaders& headers() const = 0;
  virtual const WebClientInfo& clientInfo() const = 0;
  virtual bool isBodyComplete() const = 0;
  // False once the party that delivered the request has gone; answers are
  // then dropped.
  virtual bool isActive() const = 0;
  virtual std::weak_ptr<WebRequest> weakRef() = 0;
  // A response whose headers already hold the status line.
  virtual std::shared_ptr<WebResponse> createResponse(uint32_t statusCode, StringSection reason) = 0;

  // For a status table entry (implementations that override the virtual
  // bring this one back with `using WebRequest::createResponse;`).
  std::shared_ptr<WebResponse> createResponse(const HttpStatus& status) {
    return createResponse(status.code, status.reason);
  }
};

// The answer to a WebRequest: add fields to its headers, then either send it
// whole or start it and stream the body through its sink.
class WebResponse {
 public:
  virtual ~WebResponse() = default;

  virtual MessageHeaders& headers() = 0;
  // Sends the head now; the body follows through bodySink() until its end.
  virtual void start() = 0;
  // Sends head and body in one piece, and ends the response. A length of 0
  // sends no body.
  virtual void send(const void* data, std::size_t length) = 0;
  // Where the body of a started response goes; expired (or never set) when
  // the response cannot take a body.
  virtual std::weak_ptr<BodySink> bodySink() = 0;
};

// Takes (true) or declines (false) a request. A handler that takes a request
// answers it through the request's response, at once or later.
class WebRequestHandler {
 public:
  virtual ~WebRequestHandler() = default;
  virtual bool handle(const std::shared_ptr<WebRequest>& request) = 0;
};

// Answers a request in one go: the status, then Content-Type (the given one,
// "text/plain" when it is empty) when there is a body, no-cache fields unless
// cacheable, then the body.
void sendSimpleResponse(WebRequest& request, const HttpStatus& status, StringSection body,
                        StringSection contentType = StringSection(), bool cacheable = false);

}  // namespace quorvel
