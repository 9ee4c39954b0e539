#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/delegate.h"
#include "core/lifetime_ref.h"
#include "http/encoding_parser.h"
#include "http/http_client_error.h"
#include "http/net_http_client_response.h"
#include "http/response_head_reader.h"
#include "http/web_client.h"
#include "net/buffer_chain.h"

namespace quorvel {

// The incoming half of one client request: collects the response head, hands
// the response to the caller, then runs the body through its parser to the
// caller's data handler or the response's body source, and stops reading
// while that source is blocked. The request does the reading and is told
// when more is wanted, when the response is complete and when it failed.
// It is a part of its request and reports to it directly; the one callback
// it installs reaches it through a weak reference that shares the request's
// life. The response, its head's block and both body parsers are kept for
// the request's next use. Log lines go to "httpclient" and begin with the
// request's identity.
class ResponseReceiver {
 public:
  using ResponseHandler = WebClientRequest::ResponseHandler;

  class Owner {
   public:
    // Read the next piece.
    virtual void receiveMore() = 0;
    // The whole response has been delivered.
    virtual void responseComplete() = 0;
    virtual void responseFailed(HttpClientError error) = 0;
    // The handle through which the caller holds `response`.
    virtual std::shared_ptr<NetHttpClientResponse> shareResponse(NetHttpClientResponse& response) = 0;

   protected:
    ~Owner() = default;
  };

  ResponseReceiver(Owner& owner, uintptr_t identity, std::shared_ptr<BufferChainAllocator> allocator);
  ~ResponseReceiver();
  ResponseReceiver(const ResponseReceiver&) = delete;
  ResponseReceiver& operator=(const ResponseReceiver&) = delete;

  // For the response to a request with `method` (for the body rule), with
  // nothing left of an earlier one. `self` refers to this receiver and
  // lives as long as the request's use.
  void open(StringSection method, LifetimeRef<ResponseReceiver> self);
  // The caller's handlers.
  void setResponseHandler(const ResponseHandler& handler) { responseHandler_ = handler; }
  void setBodyDataHandler(const BodyDataHandler& handler) { bodyDataHandler_ = handler; }

  // A piece from the connection (not empty); the receiver takes its buffers.
  void feed(BufferChain& data);
  // The server closed its side.
  void end();
  // No handler runs any more.
  void stop();
  // Lets go of the response handle and of everything received.
  void close();

  // Bytes taken so far, head and body.
  std::size_t receivedBytes() const { return reader_.receivedBytes(); }
  // Waiting for the body source's consumer: time spent so does not count.
  bool isPaused() const { return paused_; }
  // The connection cannot carry another request after this response.
  bool closesConnection() const { return close_; }

 private:
  void onHead();
  void deliverBody();
  void endBody();
  void onUnblocked();
  void fail(HttpClientError error);

  Owner& owner_;
  const uintptr_t identity_;
  // The request's method matters only as HEAD, whose response has no body.
  bool headRequest_ = false;
  ResponseHeadReader reader_;
  PlainEncodingParser plain_;
  ChunkedEncodingParser chunked_;
  WebEncodingParser* parser_ = nullptr;
  NetHttpClientResponse response_;
  // The caller's handle while the response is out.
  std::shared_ptr<NetHttpClientResponse> shared_;
  bool close_ = false;
  bool paused_ = false;
  bool stopped_ = false;
  ResponseHandler responseHandler_;
  BodyDataHandler bodyDataHandler_;
  LifetimeRef<ResponseReceiver> self_;
};

}  // namespace quorvel
