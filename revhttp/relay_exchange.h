#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "http/encoding_parser.h"
#include "http/http_client.h"
#include "http/web_request.h"
#include "revhttp/exchange_link.h"
#include "revhttp/reply_upload.h"
#include "revhttp/request_head_reader.h"
#include "revhttp/target_request.h"
#include "revhttp/target_response.h"

namespace quorvel {

// One relayed request, from the relay response that carries it to the reply
// that answers it: collects the request's head from the response's body,
// hands a TargetRequest to the request handler, passes it the rest of the
// body, and uploads the handler's answer (ReplyUpload). Objects are recycled
// by the relay poll: each use has its own number, and whatever is bound to a
// use does nothing once that use is over. Log: "revhttp", lines beginning
// with the relay URL the request came from.
class RelayExchange final : public ExchangeLink, public std::enable_shared_from_this<RelayExchange> {
 public:
  // Called once per use, when it is over; the exchange may be reused after
  // this turn of the loop.
  using DoneCallback = Delegate<void(RelayExchange& exchange)>;

  RelayExchange(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> pool,
                std::shared_ptr<HttpClient> http, const DoneCallback& onDone);
  ~RelayExchange();
  RelayExchange(const RelayExchange&) = delete;
  RelayExchange& operator=(const RelayExchange&) = delete;

  // Use `use` for the relay response to the GET `relayRequest` (the
  // `relaySerial`th) from `name`, whose reply link has `replyReference`
  // (no text: none). Its body is read from here on, pieces that came with
  // the head at once.
  void begin(uint64_t use, const std::string& name, StringSection replyReference, uint64_t relaySerial,
             std::shared_ptr<WebClientRequest> relayRequest, std::shared_ptr<WebClientResponse> relayResponse,
             std::shared_ptr<WebRequestHandler> handler);
  uint64_t relaySerial() const { return relaySerial_; }
  // The relay response's body broke off.
  void onRelayError(const boost::system::error_code& code);
  // The relay client is going: everything stops, no callback follows.
  void cancel();
  // Forgets the last use, once it is over and its callbacks have run, and
  // lets go of everything it held.
  void reset();

  bool isInUse(uint64_t use) const override { return use_ != 0 && use_ == use; }
  void answer(const std::shared_ptr<TargetResponse>& response, const uint8_t* data, std::size_t length,
              bool end) override;
  void pumpReply() override;
  void onReplyResponse(const std::shared_ptr<WebClientResponse>& response) override;
  void onReplyError(const boost::system::error_code& code) override;

 private:
  ExchangeRef ref() const { return ExchangeRef{anchor_.ref(), use_}; }
  void drainRelayBody();
  void relayData(const BufferChainPtr& piece);
  void headComplete(const BufferChainPtr& piece);
  void forwardBody(const BufferChainPtr& piece);
  void relayDataEnd();
  void done();

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> pool_;
  std::shared_ptr<HttpClient> http_;
  const DoneCallback onDone_;
  std::shared_ptr<WebRequestHandler> handler_;

  uint64_t use_ = 0;  // 0 while not in use (done or free)
  std::string name_;
  // Where answers go: resolved once, when the relay response arrives; and
  // the same over plain http, for answers that carry a target response.
  std::string replyUrl_;
  std::string plainReplyUrl_;
  uint64_t relaySerial_ = 0;
  std::shared_ptr<WebClientRequest> relayRequest_;
  std::shared_ptr<WebClientResponse> relayResponse_;
  std::shared_ptr<BodySink> relayBody_;

  RequestHeadReader head_;
  bool relayEnded_ = false;
  bool bodyFollows_ = false;
  bool taken_ = false;
  // Handlers get the body without its chunked framing, as from any client.
  std::unique_ptr<ChunkedEncodingParser> chunked_;

  std::shared_ptr<TargetRequest> targetRequest_;
  std::shared_ptr<TargetResponse> targetResponse_;
  ReplyUpload upload_;
  // What the parts' callbacks hold; the first member to go.
  LifetimeAnchor<ExchangeLink> anchor_{this};
};

}  // namespace quorvel
