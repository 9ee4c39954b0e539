#include "revhttp/reply_upload.h"

#include <cstring>
#include <exception>
#include <utility>

#include "core/log.h"
#include "revhttp/client_calls.h"

namespace quorvel {
namespace {

const log::Log Log("revhttp");

}  // namespace

ReplyUpload::ReplyUpload(std::shared_ptr<BufferChainAllocator> pool, const std::string& name)
    : pool_(std::move(pool)), name_(name) {}

bool ReplyUpload::makeRequest(const ExchangeRef& exchange, HttpClient& http, const std::string& url) {
  std::shared_ptr<WebClientRequest> request;
  try {
    url_.set(url);
    request = requestTo(http, "POST", url_);
  } catch (const std::exception& error) {
    QLOG(Log, log::Notice, "%s: Reply request to %s failed: %s", name_, url, error.what());
    return false;
  }
  exchange_ = exchange;
  request->setResponseHandler([exchange](const std::shared_ptr<WebClientResponse>& response) {
    exchange.with([&](ExchangeLink& link) { link.onReplyResponse(response); });
  });
  request->setErrorHandler([exchange](const boost::system::error_code& code) {
    exchange.with([&](ExchangeLink& link) { link.onReplyError(code); });
  });
  request->headers().addField(HttpHeader::ContentType, "message/http");
  request_ = request;
  return true;
}

bool ReplyUpload::start(const ExchangeRef& exchange, HttpClient& http, const std::string& url,
                        const MessageHeaders& head, StringSection method, const uint8_t* data, std::size_t length,
                        bool end) {
  const MessageHeaders::Framing framing = head.framing();
  if (!head.hasBody(method, framing)) {
    body_ = Body::None;
    length = 0;
  } else if (framing.chunked()) {
    body_ = Body::Chunked;
  }
  // The head, the first data and, when chunked, its framing go in one buffer.
  char line[ChunkFramer::MaxOpenLength];
  std::size_t lineLength = 0;
  const char* marker = "";
  if (body_ == Body::Chunked) {
    if (length > 0) lineLength = framer_.open(length, line);
    if (end) marker = framer_.endMarker();
  }
  const std::size_t markerLength = std::strlen(marker);
  BufferChain chain = pool_->allocate(head.size() + lineLength + length + markerLength);
  if (chain.empty()) {
    QLOG(Log, log::Warning, "Failed to allocate memory for target response headers");
    return false;
  }
  BufferChainPtr first(chain);
  BufferChain::Iterator out = copyToChain(head.data(), head.data() + head.size(), chain.begin());
  if (lineLength > 0) out = copyToChain(line, line + lineLength, out);
  if (length > 0) out = copyToChain(data, data + length, out);
  if (markerLength > 0) copyToChain(marker, marker + markerLength, out);

  if (!makeRequest(exchange, http, url)) return false;
  source_.setUnblockedHandler([exchange]() { exchange.with([](ExchangeLink& link) { link.pumpReply(); }); });
  try {
    source_.connect(request_->bodySink());
  } catch (const BadCallError&) {
    QLOG(Log, log::Notice, "%s: Reply request to %s takes no body", name_, url);
    return false;
  }
  // What there is goes in before the request starts, so that a kept
  // connection writes it with the head: one write and one completion, where
  // starting first sent the head alone.
  BodySource* const upload = &source_;
  upload->put(first);
  if (!exchange.isActive()) return true;
  if (end) {
    upload->end();
    complete_ = true;
  }
  request_->startStreaming();
  if (end || !exchange.isActive()) return true;
  exchange.with([](ExchangeLink& link) { link.pumpReply(); });
  return true;
}

bool ReplyUpload::startSimple(const ExchangeRef& exchange, HttpClient& http, const std::string& url,
                              const HttpStatus& status) {
  if (!makeRequest(exchange, http, url)) return false;
  MessageHeaders answer = MessageHeaders::response(status, HttpVersion::V11);
  answer.addField(HttpHeader::ContentLength, static_cast<uint32_t>(0));
  simpleBody_.assign(answer.data(), answer.size());
  complete_ = true;
  request_->send(simpleBody_.data(), simpleBody_.size());
  return true;
}

bool ReplyUpload::pump(BodySink& body) {
  if (!source_.isConnected() || complete_) return true;
  // Putting into the upload may let it take more at once, which calls back in
  // here; the outer call goes round again instead.
  if (pumping_) {
    pumpAgain_ = true;
    return true;
  }
  const ExchangeRef exchange = exchange_;
  BodySource* const upload = &source_;
  pumping_ = true;
  do {
    pumpAgain_ = false;
    while (body.hasItem() && !upload->isBlocked()) {
      BufferChainPtr piece = body.take();
      if (!exchange.isActive()) return true;
      if (!piece || body_ == Body::None) continue;
      const std::size_t size = piece.chain().size();
      QLOG(Log, log::Debug, "%s: Got %u bytes of data, writing to reply", name_, size);
      if (body_ == Body::Chunked) {
        // An empty chunk would end the body early.
        if (size == 0) continue;
        // Payload is linked in, never copied: behind the size line when
        // nobody else holds it, else put in whole after a size line of its own.
        const bool alone = piece.useCount() == 1;
        BufferChain framed = alone ? framer_.frame(*pool_, piece.release()) : framer_.sizeLine(*pool_, size);
        if (framed.empty()) {
          QLOG(Log, log::Error, "%s: No buffers to frame %u bytes of reply data", name_, size);
          return false;
        }
        if (!alone) {
          upload->put(BufferChainPtr(framed));
          if (!exchange.isActive()) return true;
        } else {
          piece = BufferChainPtr(framed);
        }
      }
      upload->put(piece);
      if (!exchange.isActive()) return true;
    }
  } while (pumpAgain_);
  pumping_ = false;
  if (body.isEnded() && !complete_) {
    QLOG(Log, log::Debug, "%s: Relay data end", name_);
    if (body_ == Body::Chunked) {
      BufferChain marker = framer_.end(*pool_);
      if (marker.empty()) {
        QLOG(Log, log::Error, "%s: No buffers to end the reply data", name_);
        return false;
      }
      upload->put(BufferChainPtr(marker));
      if (!exchange.isActive()) return true;
    }
    complete_ = true;
    upload->end();
  }
  return true;
}

// A pump cut short by the exchange's end is cleared by reset(), before any
// next use.
void ReplyUpload::abandon() {
  if (request_ && !complete_) request_->cancel();
}

void ReplyUpload::reset() {
  exchange_ = ExchangeRef();
  request_.reset();
  source_.reset();
  simpleBody_.clear();
  body_ = Body::Plain;
  framer_ = ChunkFramer();
  complete_ = pumping_ = pumpAgain_ = false;
}

}  // namespace quorvel
