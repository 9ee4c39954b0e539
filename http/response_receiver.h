#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/delegate.h"
#include "http/encoding_parser.h"
#include "http/http_client_error.h"
#include "http/response_head_reader.h"
#include "http/web_client.h"
#include "net/buffer_chain.h"

namespace quorvel {

class NetHttpClientResponse;

// The incoming half of one client request: collects the response head, hands
// the response to the caller, then runs the body through its parser to the
// caller's data handler or the response's body source, and stops reading
// while that source is blocked. The request does the reading and is told
// when more is wanted, when the response is complete and when it failed.
// Log lines go to "httpclient" and begin with the request's identity.
class ResponseReceiver : public std::enable_shared_from_this<ResponseReceiver> {
 public:
  using ResponseHandler = WebClientRequest::ResponseHandler;

  // `method` is the request's, for the body rule.
  ResponseReceiver(uintptr_t identity, std::shared_ptr<BufferChainAllocator> allocator, std::string method);
  ~ResponseReceiver();
  ResponseReceiver(const ResponseReceiver&) = delete;
  ResponseReceiver& operator=(const ResponseReceiver&) = delete;

  // The caller's handlers.
  void setResponseHandler(const ResponseHandler& handler) { responseHandler_ = handler; }
  void setBodyDataHandler(const BodyDataHandler& handler) { bodyDataHandler_ = handler; }
  // The request's: read the next piece; the whole response has been
  // delivered; the response failed.
  void setHooks(const Delegate<void()>& receiveMore, const Delegate<void()>& complete,
                const Delegate<void(HttpClientError)>& failed);

  // A piece from the connection (not empty); the receiver takes its buffers.
  void feed(BufferChain& data);
  // The server closed its side.
  void end();
  // No handler runs any more.
  void stop();

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

  const uintptr_t identity_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  const std::string method_;
  ResponseHeadReader reader_;
  std::unique_ptr<WebEncodingParser> parser_;
  std::shared_ptr<NetHttpClientResponse> response_;
  bool close_ = false;
  bool paused_ = false;
  bool stopped_ = false;
  ResponseHandler responseHandler_;
  BodyDataHandler bodyDataHandler_;
  Delegate<void()> receiveMore_;
  Delegate<void()> complete_;
  Delegate<void(HttpClientError)> failed_;
};

}  // namespace quorvel
