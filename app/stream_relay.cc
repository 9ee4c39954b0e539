#include "app/stream_relay.h"

#include <cerrno>
#include <exception>

#include "core/log.h"

namespace quorvel {
namespace ferrule {
namespace {

const log::Log Log("ferrule");

// Body chains queued between the target and the connection: two let the
// next read from the target overlap the current send.
constexpr std::size_t BodyQueue = 2;

}  // namespace

StreamRelay::StreamRelay(std::shared_ptr<Reactor> reactor, std::shared_ptr<AsyncSocket> socket,
                         std::shared_ptr<BufferPool> pool, std::shared_ptr<HttpClient> httpClient,
                         std::string targetHost, Duration queryWait, CloseCallback closeCallback)
    : reactor_(std::move(reactor)),
      socket_(std::move(socket)),
      pool_(std::move(pool)),
      httpClient_(std::move(httpClient)),
      targetHost_(std::move(targetHost)),
      queryWait_(queryWait),
      closeCallback_(std::move(closeCallback)),
      queryWaitTask_([this] { onQueryWaitOver(); }) {}

StreamRelay::~StreamRelay() {
  if (!closed_) release();
}

void StreamRelay::start() {
  reactor_->scheduleAfter(token_, queryWait_, queryWaitTask_.start());
  receive();
}

void StreamRelay::onQueryWaitOver() {
  if (closed_ || request_) return;
  QLOG(Log, log::Notice, "No video request for %ds, closing", queryWait_.count() / 1000000);
  close();
}

void StreamRelay::receive() {
  BufferChainPtr chain(pool_->allocate(MaxRequestSize));
  if (chain.chain().empty()) {  // the pool is spent
    QLOG(Log, log::Notice, "Stream disconnected, code %d", ENOMEM);
    close();
    return;
  }
  const std::weak_ptr<StreamRelay> weak = shared_from_this();
  socket_->receive(chain, [weak, chain](int error, std::size_t bytes) {
    if (std::shared_ptr<StreamRelay> self = weak.lock()) self->onReceived(chain, error, bytes);
  });
}

void StreamRelay::onReceived(const BufferChainPtr& chain, int error, std::size_t bytes) {
  if (closed_) return;
  // The end of the client's side counts as a disconnection with code 0.
  if (error || bytes == 0) {
    QLOG(Log, log::Notice, "Stream disconnected, code %d", error);
    close();
    return;
  }
  if (request_) {
    QLOG(Log, log::Notice, "Received unexpected data (%u bytes)", bytes);
  } else {
    std::string text(bytes, '\0');
    const BufferChain& received = chain.chain();
    copyFromChain(received.begin(), received.begin() + bytes, reinterpret_cast<uint8_t*>(&text[0]));
    processRequest(text);
    if (closed_) return;
  }
  receive();
}

void StreamRelay::processRequest(const std::string& text) {
  queryWaitTask_.cancel();
  QLOG(Log, log::Notice, "Processing video request: %s", text);
  const std::string path = "/video.vdo?" + text;
  try {
    request_ = httpClient_->createRequest("GET", "http", targetHost_, targetHost_, path);
  } catch (const std::exception& e) {
    QLOG(Log, log::Notice, "Video request error: %s", e.what());
    close();
    return;
  }
  const std::weak_ptr<StreamRelay> weak = shared_from_this();
  request_->setResponseHandler([weak](const std::shared_ptr<WebClientResponse>& response) {
    if (std::shared_ptr<StreamRelay> self = weak.lock()) self->onResponse(response);
  });
  request_->setErrorHandler([weak](const boost::system::error_code& code) {
    if (std::shared_ptr<StreamRelay> self = weak.lock()) self->onRequestDone(code);
  });
  request_->send(nullptr, 0);
}

void StreamRelay::onResponse(const std::shared_ptr<WebClientResponse>& response) {
  if (closed_) return;
  const MessageHeaders& head = response->headers();
  QLOG(Log, log::Notice, "Got video response: %u %s", head.statusCode(), head.reason().str());
  body_ = std::make_shared<BodySink>(BodyQueue);
  const std::weak_ptr<StreamRelay> weak = shared_from_this();
  body_->setReadyHandler([weak] {
    if (std::shared_ptr<StreamRelay> self = weak.lock()) self->pump();
  });
  response->body().connect(body_);
}

// The client's single completion handler: a success code once the whole body
// has reached the sink, which the pump then finishes sending; any failure
// ends the relay at once.
void StreamRelay::onRequestDone(const boost::system::error_code& code) {
  if (closed_ || requestDone_) return;
  requestDone_ = true;
  if (code) {
    QLOG(Log, log::Notice, "Video request error, code %u", code.value());
    close();
    return;
  }
  QLOG(Log, log::Notice, "Video request finished with code %u", code.value());
  if (!body_) {
    close();
    return;
  }
  pump();
}

void StreamRelay::pump() {
  if (closed_ || !body_ || sending_) return;
  while (body_->hasItem()) {
    BufferChainPtr chain = body_->take();
    if (closed_) return;
    if (!chain || chain.chain().size() == 0) continue;
    sending_ = chain;
    const std::weak_ptr<StreamRelay> weak = shared_from_this();
    socket_->send(chain, [weak](int error, std::size_t) {
      if (std::shared_ptr<StreamRelay> self = weak.lock()) self->onSent(error);
    });
    return;
  }
  if (body_->isEnded()) {
    QLOG(Log, log::Notice, "Response data stream is finished");
    close();
  }
}

void StreamRelay::onSent(int error) {
  if (closed_) return;
  sending_.reset();
  if (error) {
    QLOG(Log, log::Notice, "SCTP send error: %d", error);
    close();
    return;
  }
  pump();
}

void StreamRelay::close() {
  if (closed_) return;
  release();
  CloseCallback callback = closeCallback_;
  if (callback) callback(this);
}

// Stops the target's download and shuts the association down gracefully:
// body bytes the stack has taken still reach the client before its end of
// stream.
void StreamRelay::release() {
  closed_ = true;
  queryWaitTask_.cancel();
  // A body that has ended whole leaves nothing to stop.
  const bool bodyComplete = body_ && body_->endArrived();
  if (request_ && !requestDone_ && !bodyComplete) request_->cancel();
  if (body_) body_->setReadyHandler(Delegate<void()>());
  body_.reset();
  socket_->close();
}

}  // namespace ferrule
}  // namespace quorvel
