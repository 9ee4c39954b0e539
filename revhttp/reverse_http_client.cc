#include "revhttp/reverse_http_client.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>

#include "core/log.h"
#include "http/http_names.h"
#include "http/url.h"
#include "revhttp/link_field.h"
#include "revhttp/pending_request.h"
#include "revhttp/target_exchange.h"

namespace quorvel {
namespace {

const log::Log Log("revhttp");

const char* const HeadSeparator = "\r\n\r\n";
const std::size_t HeadSeparatorLength = 4;

// Responses whose body nobody wants are still read to their end, so that the
// exchange completes and its connection can be used again: a source whose
// sink has gone drops what it is given without holding the producer back,
// and a sink that is never full lets go of a producer waiting already.
void discardBody(const std::shared_ptr<WebClientResponse>& response) {
  auto sink = std::make_shared<BodySink>(std::numeric_limits<std::size_t>::max());
  response->body().connect(sink);
}

// A sink that nobody reads any more is still emptied as things arrive, or
// its producer would wait for room forever.
void discardInto(const std::shared_ptr<BodySink>& sink) {
  if (!sink) return;
  const std::weak_ptr<BodySink> weak = sink;
  sink->setReadyHandler([weak]() {
    if (std::shared_ptr<BodySink> held = weak.lock()) {
      while (held->hasItem()) held->take();
    }
  });
  while (sink->hasItem()) sink->take();
}

// Clamps the doubled wait to the longest one.
Duration nextDelay(Duration delay) {
  const Duration doubled = delay * 2;
  return doubled > ReverseHttpClient::LastRetryDelay ? ReverseHttpClient::LastRetryDelay : doubled;
}

}  // namespace

constexpr Duration ReverseHttpClient::FirstRetryDelay;
constexpr Duration ReverseHttpClient::LastRetryDelay;
constexpr std::size_t ReverseHttpClient::HeadBufferSize;

ReverseHttpClient::ReverseHttpClient(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> bufferPool,
                                     std::shared_ptr<HttpClient> httpClient, const std::string& registrationUrl,
                                     const std::string& key)
    : reactor_(std::move(reactor)),
      pool_(std::move(bufferPool)),
      http_(std::move(httpClient)),
      registrationUrl_(registrationUrl),
      key_(key),
      registerBody_("drk=" + key),
      retryTask_([this]() { registerStep(); }) {}

ReverseHttpClient::~ReverseHttpClient() {
  retryTask_.cancel();
  if (inProgress_) inProgress_->cancel();
  for (const PendingPtr& pending : active_) {
    pending->generation = 0;
    if (pending->relayRequest) pending->relayRequest->cancel();
    if (pending->replyRequest) pending->replyRequest->cancel();
  }
}

void ReverseHttpClient::start() { registerStep(); }

template <typename T>
void ReverseHttpClient::releaseLater(T&& held) {
  auto box = std::make_shared<std::decay_t<T>>(std::forward<T>(held));
  reactor_->post(token_, [box]() { box->reset(); });
}

ReverseHttpClient::ClientRequestPtr ReverseHttpClient::makeRequest(const char* method, const std::string& url) {
  const std::string authority = Url::authority(url);
  std::string path = Url::path(url);
  if (path.empty()) path = "/";
  return http_->createRequest(method, Url::scheme(url), authority, authority, path);
}

ReverseHttpClient::ClientRequestPtr ReverseHttpClient::beginRequest(const char* method, const std::string& url,
                                                                   ResponseStep onResponse, ErrorStep onError) {
  ClientRequestPtr request;
  try {
    request = makeRequest(method, url);
  } catch (const std::exception& error) {
    QLOG(Log, log::Notice, "%s request to %s failed: %s", method, url, error.what());
    awaitedSerial_ = 0;
    retryStep();
    return nullptr;
  }
  if (inProgress_) releaseLater(std::move(inProgress_));
  inProgress_ = request;
  const uint64_t serial = awaitedSerial_ = ++lastSerial_;
  const std::weak_ptr<ReverseHttpClient> self = weak_from_this();
  request->setResponseHandler([self, serial, onResponse](const ClientResponsePtr& response) {
    if (std::shared_ptr<ReverseHttpClient> client = self.lock()) ((*client).*onResponse)(serial, response);
  });
  request->setErrorHandler([self, serial, onError](const boost::system::error_code& code) {
    if (std::shared_ptr<ReverseHttpClient> client = self.lock()) ((*client).*onError)(serial, code);
  });
  return request;
}

// ---- registration

void ReverseHttpClient::registerStep() {
  QLOG(Log, log::Info, "Registering at %s with key %s", registrationUrl_, key_);
  relayUrl_.clear();
  ClientRequestPtr request =
      beginRequest("POST", registrationUrl_, &ReverseHttpClient::onRegisterResponse, &ReverseHttpClient::onRegisterError);
  if (!request) return;
  request->headers().addField(HttpHeader::ContentType, "application/x-www-form-urlencoded");
  request->send(registerBody_.data(), registerBody_.size());
}

void ReverseHttpClient::onRegisterResponse(uint64_t serial, const ClientResponsePtr& response) {
  if (serial != awaitedSerial_) return;
  awaitedSerial_ = 0;
  discardBody(response);
  const MessageHeaders& headers = response->headers();
  if (headers.statusCode() != HttpStatus::Created.code) {
    QLOG(Log, log::Notice, "Register response has status %d %s", headers.statusCode(), headers.reason());
    retryStep();
    return;
  }
  relayUrl_ = findLink(headers, "first", registrationUrl_);
  if (relayUrl_.empty()) {
    QLOG(Log, log::Notice, "Register response has no Link field");
    retryStep();
    return;
  }
  QLOG(Log, log::Info, "Registration succeeded");
  delay_ = FirstRetryDelay;
  releaseLater(std::move(inProgress_));
  relayRequestStep();
}

void ReverseHttpClient::onRegisterError(uint64_t serial, const boost::system::error_code& code) {
  if (serial != awaitedSerial_ || !code) return;
  awaitedSerial_ = 0;
  QLOG(Log, log::Notice, "Registration request failed with code %u", code.value());
  retryStep();
}

void ReverseHttpClient::retryStep() {
  retryTask_.cancel();
  reactor_->scheduleAfter(token_, delay_, retryTask_.start());
  delay_ = nextDelay(delay_);
}

// ---- relay loop

void ReverseHttpClient::relayRequestStep() {
  QLOG(Log, log::Debug, "Starting relay request to %s", relayUrl_);
  ClientRequestPtr request =
      beginRequest("GET", relayUrl_, &ReverseHttpClient::onRelayResponse, &ReverseHttpClient::onRelayError);
  if (!request) return;
  request->headers().addField(HttpHeader::Accept, "message/http");
  request->send(nullptr, 0);
}

void ReverseHttpClient::onRelayResponse(uint64_t serial, const ClientResponsePtr& response) {
  if (serial != awaitedSerial_) return;
  awaitedSerial_ = 0;
  const MessageHeaders& headers = response->headers();
  const uint32_t status = headers.statusCode();
  QLOG(Log, log::Debug, "Got relay response from %s: %s %u %s", relayUrl_, headers.version(), status,
       headers.reason());
  recycleFinished();

  if (status >= 400) {
    QLOG(Log, log::Notice, "Bad relay response %u %s from %s", status, headers.reason(), relayUrl_);
    discardBody(response);
    retryStep();
    return;
  }
  if (status == 204) {
    discardBody(response);
  } else {
    const MessageHeaders::FieldIterator type = headers.find(HttpHeader::ContentType);
    if (type == headers.end() || !type->value.equals("message/http")) {
      QLOG(Log, log::Notice, "Relay response has no or unsupported content type");
      discardBody(response);
      retryStep();
      return;
    }
    PendingPtr pending = obtainPending();
    pending->name = relayUrl_;
    pending->relaySerial = serial;
    pending->relayRequest = inProgress_;
    pending->relayResponse = response;
    pending->relayBody = std::make_shared<BodySink>();
    active_.push_back(pending);
    const PendingHandle handle = handleOf(*pending);
    pending->relayBody->setReadyHandler([handle]() {
      handle.with([](ReverseHttpClient& client, PendingRequest& request) { client.drainRelayBody(request); });
    });
    // Pieces that came with the head are delivered from inside.
    response->body().connect(pending->relayBody);
  }

  relayUrl_ = findLink(headers, "next", relayUrl_);
  if (relayUrl_.empty()) {
    QLOG(Log, log::Notice, "Relay response has no Link field");
    retryStep();
    return;
  }
  relayRequestStep();
}

void ReverseHttpClient::onRelayError(uint64_t serial, const boost::system::error_code& code) {
  if (!code) return;
  if (serial == awaitedSerial_) {
    awaitedSerial_ = 0;
    QLOG(Log, log::Notice, "Relay request to %s failed with code %s", relayUrl_, code.value());
    retryStep();
    return;
  }
  // The head was handled; the body of a relayed request broke off.
  for (const PendingPtr& pending : active_) {
    if (pending->relaySerial == serial) {
      QLOG(Log, log::Debug, "%s: Relay response error %u", pending->name, code.value());
      doneStep(*pending);
      return;
    }
  }
}

// ---- pending requests

ReverseHttpClient::PendingPtr ReverseHttpClient::obtainPending() {
  PendingPtr pending;
  if (free_.empty()) {
    pending = std::make_shared<PendingRequest>();
  } else {
    pending = std::move(free_.back());
    free_.pop_back();
  }
  pending->generation = ++lastGeneration_;
  return pending;
}

void ReverseHttpClient::recycleFinished() {
  for (PendingPtr& pending : finished_) {
    pending->reset();
    if (free_.size() < FreeListLimit) free_.push_back(std::move(pending));
  }
  finished_.clear();
}

ReverseHttpClient::PendingHandle ReverseHttpClient::handleOf(PendingRequest& pending) {
  return PendingHandle{weak_from_this(), pending.weak_from_this(), pending.generation};
}

void ReverseHttpClient::drainRelayBody(PendingRequest& pending) {
  const uint64_t use = pending.generation;
  const std::shared_ptr<BodySink> sink = pending.relayBody;
  while (pending.isActive(use) && sink->hasItem()) relayData(pending, sink->take());
  if (pending.isActive(use) && sink->isEnded() && !pending.relayEnded) {
    pending.relayEnded = true;
    relayDataEnd(pending);
  }
}

void ReverseHttpClient::relayData(PendingRequest& pending, const BufferChainPtr& piece) {
  if (!piece) return;
  const std::size_t size = piece.chain().size();
  if (pending.headParsed) {
    QLOG(Log, log::Debug, "%s: Forwarded %u bytes of relay data", pending.name, size);
    if (pending.taken && pending.bodyFollows) forwardBody(pending, piece);
    return;
  }

  QLOG(Log, log::Debug, "%s: Got %u bytes of relay data", pending.name, size);
  const std::size_t before = pending.headFilled;
  const std::size_t copied = std::min(size, HeadBufferSize - before);
  BufferChain::Iterator first = piece.chain().begin();
  copyFromChain(first, first + copied, reinterpret_cast<uint8_t*>(pending.head.data() + before));
  pending.headFilled += copied;

  // Earlier pieces held no separator, so only one that ends in this piece
  // can be new.
  const char* from = pending.head.data() + (before < HeadSeparatorLength ? 0 : before - (HeadSeparatorLength - 1));
  const char* end = pending.head.data() + pending.headFilled;
  const char* found = std::search(from, end, HeadSeparator, HeadSeparator + HeadSeparatorLength);
  if (found == end) {
    if (pending.headFilled == HeadBufferSize) {
      QLOG(Log, log::Notice, "%s: No header separator found in %u bytes", pending.name, HeadBufferSize);
      doneStep(pending);
    } else {
      QLOG(Log, log::Debug, "%s: No header separator found, waiting for more data", pending.name);
    }
    return;
  }
  headComplete(pending, static_cast<std::size_t>(found - pending.head.data()), before, piece);
}

void ReverseHttpClient::headComplete(PendingRequest& pending, std::size_t separator, std::size_t filledBefore,
                                     const BufferChainPtr& piece) {
  MessageHeaders headers = MessageHeaders::parseRequest(pending.head.data(), separator + HttpLineEnd::Length);
  if (!headers.isValid()) {
    QLOG(Log, log::Notice, "%s: Relay reply contains malformed HTTP request", pending.name);
    doneStep(pending);
    return;
  }
  pending.headParsed = true;
  const PendingHandle handle = handleOf(pending);
  auto request = std::make_shared<TargetRequest>(handle, std::move(headers));
  pending.targetRequest = request;
  pending.bodyFollows = request->headers().hasBody();
  if (!pending.bodyFollows) {
    request->deliverEnd();
  } else if (!request->headers().has(HttpHeader::ContentLength)) {
    pending.chunked = std::make_unique<ChunkedEncodingParser>(pool_);
  }
  QLOG(Log, log::Info, "%s: Forwarding request: %s %s %s", pending.name, request->headers().method(),
       request->headers().requestTarget(), request->headers().version());

  const uint64_t use = pending.generation;
  const bool taken = handler_ && handler_->handle(request);
  if (!pending.isActive(use)) return;
  if (!taken) {
    QLOG(Log, log::Notice, "%s: Request for %s not handled", pending.name, request->headers().requestTarget());
    simpleReply(pending, HttpStatus::NotFound);
    return;
  }
  pending.taken = true;
  const std::size_t bodyStart = separator + HeadSeparatorLength - filledBefore;
  if (pending.bodyFollows && bodyStart < piece.chain().size()) {
    // This piece has been read to its end; what follows the head is the
    // body's first data.
    piece.chain().trimFront(bodyStart);
    forwardBody(pending, piece);
  }
}

void ReverseHttpClient::forwardBody(PendingRequest& pending, const BufferChainPtr& piece) {
  if (!pending.chunked) {
    pending.targetRequest->deliver(piece);
    return;
  }
  ChunkedEncodingParser& parser = *pending.chunked;
  if (parser.isFinished() || parser.isFailed()) return;
  BufferChain input = BufferChainPtr(piece).release();
  parser.feed(input);
  const uint64_t use = pending.generation;
  if (BufferChainPtr data = parser.takeData()) pending.targetRequest->deliver(data);
  if (!pending.isActive(use)) return;
  if (parser.isFailed()) {
    QLOG(Log, log::Notice, "%s: Relayed request has a malformed chunked body", pending.name);
    doneStep(pending);
  } else if (parser.isFinished()) {
    pending.targetRequest->deliverEnd();
  }
}

void ReverseHttpClient::relayDataEnd(PendingRequest& pending) {
  const uint64_t use = pending.generation;
  QLOG(Log, log::Debug, "%s: Relay data end", pending.name);
  if (pending.targetRequest) pending.targetRequest->deliverEnd();
  if (!pending.isActive(use)) return;
  QLOG(Log, log::Debug, "%s: Relay response complete", pending.name);
  // A body that ended inside the head carries no request to answer.
  if (!pending.headParsed) doneStep(pending);
}

// ---- answers

std::string ReverseHttpClient::replyUrl(const PendingRequest& pending) const {
  std::string url = findLink(pending.relayResponse->headers(), "reply", pending.name);
  return url.empty() ? pending.name : url;
}

bool ReverseHttpClient::makeReplyRequest(PendingRequest& pending, const std::string& url) {
  ClientRequestPtr request;
  try {
    request = makeRequest("POST", url);
  } catch (const std::exception& error) {
    QLOG(Log, log::Notice, "%s: Reply request to %s failed: %s", pending.name, url, error.what());
    doneStep(pending);
    return false;
  }
  const PendingHandle handle = handleOf(pending);
  request->setResponseHandler([handle](const ClientResponsePtr& response) {
    handle.with([&](ReverseHttpClient& client, PendingRequest& request) { client.onReplyResponse(request, response); });
  });
  request->setErrorHandler([handle](const boost::system::error_code& code) {
    handle.with([&](ReverseHttpClient& client, PendingRequest& request) { client.onReplyError(request, code); });
  });
  request->headers().addField(HttpHeader::ContentType, "message/http");
  pending.replyRequest = request;
  return true;
}

void ReverseHttpClient::replyStep(PendingRequest& pending, const uint8_t* data, std::size_t length, bool end) {
  if (pending.replyRequest) return;  // answered already
  const MessageHeaders& head = pending.targetResponse->headers();
  QLOG(Log, log::Info, "%s: Got target response: %s %u %s", pending.name, head.version(), head.statusCode(),
       head.reason());
  // Answers that carry a target response go back over plain http whatever
  // scheme the relay named.
  const std::string url = Url::withScheme(replyUrl(pending), "http");

  const StringSection method = pending.targetRequest ? pending.targetRequest->headers().method() : StringSection();
  if (!head.hasBody(method)) {
    pending.replyBody = PendingRequest::ReplyBody::None;
    length = 0;
  } else if (isChunked(head)) {
    pending.replyBody = PendingRequest::ReplyBody::Chunked;
  }
  // The head, the first data and, when chunked, its framing go in one buffer.
  char line[ChunkFramer::MaxOpenLength];
  std::size_t lineLength = 0;
  const char* marker = "";
  if (pending.replyBody == PendingRequest::ReplyBody::Chunked) {
    if (length > 0) lineLength = pending.replyFramer.open(length, line);
    if (end) marker = pending.replyFramer.endMarker();
  }
  const std::size_t markerLength = std::strlen(marker);
  BufferChain chain = pool_->allocate(head.size() + lineLength + length + markerLength);
  if (chain.empty()) {
    QLOG(Log, log::Warning, "Failed to allocate memory for target response headers");
    doneStep(pending);
    return;
  }
  BufferChainPtr first(chain);
  BufferChain::Iterator out = copyToChain(head.data(), head.data() + head.size(), chain.begin());
  if (lineLength > 0) out = copyToChain(line, line + lineLength, out);
  if (length > 0) out = copyToChain(data, data + length, out);
  if (markerLength > 0) copyToChain(marker, marker + markerLength, out);

  if (!makeReplyRequest(pending, url)) return;
  const uint64_t use = pending.generation;
  pending.replyRequest->startStreaming();
  pending.replySource = std::make_shared<BodySource>();
  const PendingHandle handle = handleOf(pending);
  pending.replySource->setUnblockedHandler([handle]() {
    handle.with([](ReverseHttpClient& client, PendingRequest& request) { client.pumpReply(request); });
  });
  try {
    pending.replySource->connect(pending.replyRequest->bodySink());
  } catch (const BadCallError&) {
    QLOG(Log, log::Notice, "%s: Reply request to %s takes no body", pending.name, url);
    doneStep(pending);
    return;
  }
  pending.replySource->put(first);
  if (!pending.isActive(use)) return;
  if (end) {
    pending.replySource->end();
    pending.replyComplete = true;
    return;
  }
  pumpReply(pending);
}

void ReverseHttpClient::pumpReply(PendingRequest& pending) {
  if (!pending.replySource || !pending.targetResponse || pending.replyComplete) return;
  // Putting into the upload may let it take more at once, which calls back in
  // here; the outer call goes round again instead.
  if (pending.pumping) {
    pending.pumpAgain = true;
    return;
  }
  const uint64_t use = pending.generation;
  const std::shared_ptr<TargetResponse> response = pending.targetResponse;
  const std::shared_ptr<BodySource> upload = pending.replySource;
  BodySink& body = response->sink();
  pending.pumping = true;
  do {
    pending.pumpAgain = false;
    while (body.hasItem() && !upload->isBlocked()) {
      BufferChainPtr piece = body.take();
      if (!pending.isActive(use)) return;
      if (!piece || pending.replyBody == PendingRequest::ReplyBody::None) continue;
      const std::size_t size = piece.chain().size();
      QLOG(Log, log::Debug, "%s: Got %u bytes of data, writing to reply", pending.name, size);
      if (pending.replyBody == PendingRequest::ReplyBody::Chunked) {
        // An empty chunk would end the body early.
        if (size == 0) continue;
        // Payload is linked in, never copied: behind the size line when
        // nobody else holds it, else put in whole after a size line of its own.
        const bool alone = piece.useCount() == 1;
        BufferChain framed = alone ? pending.replyFramer.frame(*pool_, piece.release())
                                   : pending.replyFramer.sizeLine(*pool_, size);
        if (framed.empty()) {
          QLOG(Log, log::Error, "%s: No buffers to frame %u bytes of reply data", pending.name, size);
          doneStep(pending);
          return;
        }
        if (!alone) {
          upload->put(BufferChainPtr(framed));
          if (!pending.isActive(use)) return;
        } else {
          piece = BufferChainPtr(framed);
        }
      }
      upload->put(piece);
      if (!pending.isActive(use)) return;
    }
  } while (pending.pumpAgain);
  pending.pumping = false;
  if (body.isEnded() && !pending.replyComplete) {
    QLOG(Log, log::Debug, "%s: Relay data end", pending.name);
    if (pending.replyBody == PendingRequest::ReplyBody::Chunked) {
      BufferChain marker = pending.replyFramer.end(*pool_);
      if (marker.empty()) {
        QLOG(Log, log::Error, "%s: No buffers to end the reply data", pending.name);
        doneStep(pending);
        return;
      }
      upload->put(BufferChainPtr(marker));
      if (!pending.isActive(use)) return;
    }
    pending.replyComplete = true;
    upload->end();
  }
}

void ReverseHttpClient::simpleReply(PendingRequest& pending, const HttpStatus& status) {
  if (!makeReplyRequest(pending, replyUrl(pending))) return;
  MessageHeaders answer = MessageHeaders::response(status, HttpVersion::V11);
  answer.addField(HttpHeader::ContentLength, static_cast<uint32_t>(0));
  pending.simpleBody.assign(answer.data(), answer.size());
  pending.replyComplete = true;
  pending.replyRequest->send(pending.simpleBody.data(), pending.simpleBody.size());
}

void ReverseHttpClient::onReplyResponse(PendingRequest& pending, const ClientResponsePtr& response) {
  const MessageHeaders& headers = response->headers();
  QLOG(Log, log::Debug, "%s: Got reply response: %s %u %s", pending.name, headers.version(), headers.statusCode(),
       headers.reason());
  discardBody(response);
  doneStep(pending);
}

void ReverseHttpClient::onReplyError(PendingRequest& pending, const boost::system::error_code& code) {
  if (!code) return;
  QLOG(Log, log::Notice, "%s: Reply response error %u", pending.name, code.value());
  doneStep(pending);
}

void ReverseHttpClient::doneStep(PendingRequest& pending) {
  QLOG(Log, log::Debug, "Pending request %s done, removing", pending.name);
  pending.generation = 0;
  pending.pumping = false;
  discardInto(pending.relayBody);
  if (pending.targetResponse) discardInto(pending.targetResponse->bodySink().lock());
  // An upload still going has nothing more coming.
  if (pending.replyRequest && !pending.replyComplete) pending.replyRequest->cancel();
  const auto found =
      std::find_if(active_.begin(), active_.end(), [&](const PendingPtr& p) { return p.get() == &pending; });
  if (found != active_.end()) {
    finished_.push_back(std::move(*found));
    active_.erase(found);
  }
  struct Held {
    ClientRequestPtr relayRequest;
    ClientResponsePtr relayResponse;
    std::shared_ptr<BodySink> relayBody;
    std::shared_ptr<TargetRequest> targetRequest;
    std::shared_ptr<TargetResponse> targetResponse;
    ClientRequestPtr replyRequest;
    std::shared_ptr<BodySource> replySource;
    void reset() { *this = Held(); }
  };
  releaseLater(Held{std::move(pending.relayRequest), std::move(pending.relayResponse), std::move(pending.relayBody),
                    std::move(pending.targetRequest), std::move(pending.targetResponse),
                    std::move(pending.replyRequest), std::move(pending.replySource)});
}

}  // namespace quorvel
