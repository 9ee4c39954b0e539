#include "revhttp/relay_exchange.h"

#include <utility>

#include "core/handler_memory.h"
#include "core/log.h"
#include "http/http_names.h"
#include "http/url.h"
#include "revhttp/client_calls.h"
#include "revhttp/link_field.h"

namespace quorvel {
namespace {

const log::Log Log("revhttp");

}  // namespace

RelayExchange::RelayExchange(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> pool,
                             std::shared_ptr<HttpClient> http, const DoneCallback& onDone)
    : reactor_(std::move(reactor)),
      pool_(std::move(pool)),
      http_(std::move(http)),
      onDone_(onDone),
      upload_(pool_, name_) {}

RelayExchange::~RelayExchange() = default;

void RelayExchange::begin(uint64_t use, const std::string& name, StringSection replyReference, uint64_t relaySerial,
                          std::shared_ptr<WebClientRequest> relayRequest,
                          std::shared_ptr<WebClientResponse> relayResponse,
                          std::shared_ptr<WebRequestHandler> handler) {
  use_ = use;
  name_ = name;
  relaySerial_ = relaySerial;
  relayRequest_ = std::move(relayRequest);
  relayResponse_ = std::move(relayResponse);
  handler_ = std::move(handler);
  if (replyReference.data()) {
    Url::resolve(name_, replyReference, replyUrl_);
  } else {
    replyUrl_ = name_;
  }
  // Made for every relayed request, like the target's request and response:
  // their blocks come from the loop's free lists rather than the heap.
  relayBody_ = std::allocate_shared<BodySink>(HandlerAllocator<BodySink>());
  relayBody_->setReadyHandler([exchange = ref()]() {
    exchange.with([](ExchangeLink& link) { static_cast<RelayExchange&>(link).drainRelayBody(); });
  });
  // Pieces that came with the head are delivered from inside.
  relayResponse_->body().connect(relayBody_);
}

void RelayExchange::drainRelayBody() {
  const uint64_t use = use_;
  const std::shared_ptr<BodySink> sink = relayBody_;
  while (isInUse(use) && sink->hasItem()) relayData(sink->take());
  if (isInUse(use) && sink->isEnded() && !relayEnded_) {
    relayEnded_ = true;
    relayDataEnd();
  }
}

void RelayExchange::relayData(const BufferChainPtr& piece) {
  if (!piece) return;
  const std::size_t size = piece.chain().size();
  if (head_.state() == RequestHeadReader::State::Complete) {
    QLOG(Log, log::Debug, "%s: Forwarded %u bytes of relay data", name_, size);
    if (taken_ && bodyFollows_) forwardBody(piece);
    return;
  }
  QLOG(Log, log::Debug, "%s: Got %u bytes of relay data", name_, size);
  switch (head_.feed(piece.chain())) {
    case RequestHeadReader::State::Collecting:
      QLOG(Log, log::Debug, "%s: No header separator found, waiting for more data", name_);
      return;
    case RequestHeadReader::State::TooLarge:
      QLOG(Log, log::Notice, "%s: No header separator found in %u bytes", name_, RequestHeadReader::Capacity);
      done();
      return;
    case RequestHeadReader::State::Bad:
      QLOG(Log, log::Notice, "%s: Relay reply contains malformed HTTP request", name_);
      done();
      return;
    case RequestHeadReader::State::Complete:
      headComplete(piece);
      return;
  }
}

void RelayExchange::headComplete(const BufferChainPtr& piece) {
  auto request = std::allocate_shared<TargetRequest>(HandlerAllocator<TargetRequest>(), ref(), head_.takeHeaders());
  targetRequest_ = request;
  const MessageHeaders& headers = request->headers();
  const MessageHeaders::Framing framing = headers.framing();
  bodyFollows_ = headers.hasBody(StringSection(), framing);
  if (!bodyFollows_) {
    request->deliverEnd();
  } else if (framing.length == headers.end()) {
    chunked_ = std::make_unique<ChunkedEncodingParser>(pool_);
  }
  QLOG(Log, log::Info, "%s: Forwarding request: %s %s %s", name_, headers.method(), headers.requestTarget(),
       headers.version());

  const uint64_t use = use_;
  const bool taken = handler_ && handler_->handle(request);
  if (!isInUse(use)) return;
  if (!taken) {
    QLOG(Log, log::Notice, "%s: Request for %s not handled", name_, headers.requestTarget());
    if (!upload_.startSimple(ref(), *http_, replyUrl_, HttpStatus::NotFound)) done();
    return;
  }
  taken_ = true;
  const std::size_t bodyStart = head_.bodyOffset();
  if (bodyFollows_ && bodyStart < piece.chain().size()) {
    // This piece has been read to its end; what follows the head is the
    // body's first data.
    piece.chain().trimFront(bodyStart);
    forwardBody(piece);
  }
}

void RelayExchange::forwardBody(const BufferChainPtr& piece) {
  if (!chunked_) {
    targetRequest_->deliver(piece);
    return;
  }
  // A finished or failed parser drops what it is fed, and a failure ends the
  // exchange, which then discards the rest of the relay's body.
  ChunkedEncodingParser& parser = *chunked_;
  BufferChain input = BufferChainPtr(piece).release();
  parser.feed(input);
  const uint64_t use = use_;
  if (BufferChainPtr data = parser.takeData()) targetRequest_->deliver(data);
  if (!isInUse(use)) return;
  if (parser.isFailed()) {
    QLOG(Log, log::Notice, "%s: Relayed request has a malformed chunked body", name_);
    done();
  } else if (parser.isFinished()) {
    targetRequest_->deliverEnd();
  }
}

void RelayExchange::relayDataEnd() {
  const uint64_t use = use_;
  QLOG(Log, log::Debug, "%s: Relay data end", name_);
  if (targetRequest_) targetRequest_->deliverEnd();
  if (!isInUse(use)) return;
  QLOG(Log, log::Debug, "%s: Relay response complete", name_);
  // A body that ended inside the head carries no request to answer.
  if (head_.state() != RequestHeadReader::State::Complete) done();
}

void RelayExchange::onRelayError(const boost::system::error_code& code) {
  QLOG(Log, log::Debug, "%s: Relay response error %u", name_, code.value());
  done();
}

void RelayExchange::answer(const std::shared_ptr<TargetResponse>& response, const uint8_t* data, std::size_t length,
                           bool end) {
  targetResponse_ = response;
  if (upload_.isStarted()) return;  // answered already
  const MessageHeaders& head = response->headers();
  QLOG(Log, log::Info, "%s: Got target response: %s %u %s", name_, head.version(), head.statusCode(),
       head.reason());
  // Answers that carry a target response go back over plain http whatever
  // scheme the relay named.
  Url::withScheme(replyUrl_, "http", plainReplyUrl_);
  const StringSection method = targetRequest_ ? targetRequest_->headers().method() : StringSection();
  if (!upload_.start(ref(), *http_, plainReplyUrl_, head, method, data, length, end)) done();
}

void RelayExchange::pumpReply() {
  if (targetResponse_ && !upload_.pump(targetResponse_->sink())) done();
}

void RelayExchange::onReplyResponse(const std::shared_ptr<WebClientResponse>& response) {
  const MessageHeaders& headers = response->headers();
  QLOG(Log, log::Debug, "%s: Got reply response: %s %u %s", name_, headers.version(), headers.statusCode(),
       headers.reason());
  discardBody(response);
  done();
}

void RelayExchange::onReplyError(const boost::system::error_code& code) {
  if (!code) return;
  QLOG(Log, log::Notice, "%s: Reply response error %u", name_, code.value());
  done();
}

void RelayExchange::done() {
  QLOG(Log, log::Debug, "Pending request %s done, removing", name_);
  use_ = 0;
  if (relayBody_) relayBody_->discard();
  if (targetResponse_) {
    if (const std::shared_ptr<BodySink> sink = targetResponse_->bodySink().lock()) sink->discard();
  }
  upload_.abandon();
  // What it holds may be running callbacks now: it lets go of them in
  // reset(), when the relay poll takes the exchange back at its next
  // response.
  if (onDone_) onDone_(*this);
}

void RelayExchange::cancel() {
  use_ = 0;
  if (relayRequest_) relayRequest_->cancel();
  upload_.cancel();
}

void RelayExchange::reset() {
  use_ = 0;
  name_.clear();
  replyUrl_.clear();
  plainReplyUrl_.clear();
  relaySerial_ = 0;
  relayRequest_.reset();
  relayResponse_.reset();
  relayBody_.reset();
  handler_.reset();
  head_.reset();
  relayEnded_ = bodyFollows_ = taken_ = false;
  chunked_.reset();
  targetRequest_.reset();
  targetResponse_.reset();
  upload_.reset();
}

}  // namespace quorvel
