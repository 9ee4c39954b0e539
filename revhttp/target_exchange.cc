#include "revhttp/target_exchange.h"

#include <utility>

#include "revhttp/pending_request.h"

namespace quorvel {

ReverseHttpClient::TargetRequest::TargetRequest(const PendingHandle& pending, MessageHeaders headers)
    : pending_(std::make_unique<PendingHandle>(pending)), headers_(std::move(headers)) {}

ReverseHttpClient::TargetRequest::~TargetRequest() = default;

bool ReverseHttpClient::TargetRequest::isActive() const { return pending_->isActive(); }

void ReverseHttpClient::TargetRequest::setBodyDataHandler(const BodyDataHandler& handler) {
  handler_ = handler;
  // The handler may answer, or set another handler, from inside; keep the
  // object alive and stop as soon as the handler it was set for is replaced.
  std::shared_ptr<TargetRequest> self = shared_from_this();
  while (handler_ && !held_.empty()) {
    BufferChainPtr piece = std::move(held_.front());
    held_.pop_front();
    BodyDataHandler call = handler_;
    call(piece, false);
  }
  if (handler_ && bodyComplete_ && held_.empty() && !endDelivered_) {
    endDelivered_ = true;
    BodyDataHandler call = handler_;
    call(BufferChainPtr(), true);
  }
}

void ReverseHttpClient::TargetRequest::deliver(const BufferChainPtr& piece) {
  if (bodyComplete_) return;
  if (!handler_ || !held_.empty()) {
    held_.push_back(piece);
    return;
  }
  BodyDataHandler call = handler_;
  call(piece, false);
}

void ReverseHttpClient::TargetRequest::deliverEnd() {
  if (bodyComplete_) return;
  bodyComplete_ = true;
  if (handler_ && held_.empty() && !endDelivered_) {
    endDelivered_ = true;
    BodyDataHandler call = handler_;
    call(BufferChainPtr(), true);
  }
}

std::shared_ptr<WebResponse> ReverseHttpClient::TargetRequest::createResponse(uint32_t statusCode,
                                                                             StringSection reason) {
  return std::make_shared<TargetResponse>(*pending_, MessageHeaders::response(statusCode, reason));
}

ReverseHttpClient::TargetResponse::TargetResponse(const PendingHandle& pending, MessageHeaders headers)
    : pending_(std::make_unique<PendingHandle>(pending)),
      headers_(std::move(headers)),
      sink_(std::make_shared<BodySink>(SinkCapacity)) {
  const PendingHandle handle = pending;
  sink_->setReadyHandler([handle]() {
    handle.with([](ReverseHttpClient& client, PendingRequest& request) { client.pumpReply(request); });
  });
}

ReverseHttpClient::TargetResponse::~TargetResponse() = default;

void ReverseHttpClient::TargetResponse::start() {
  if (answered_) return;
  answered_ = true;
  pending_->with([this](ReverseHttpClient& client, PendingRequest& request) {
    request.targetResponse = shared_from_this();
    client.replyStep(request, nullptr, 0, false);
  });
}

void ReverseHttpClient::TargetResponse::send(const void* data, std::size_t length) {
  if (answered_) return;
  answered_ = true;
  pending_->with([&](ReverseHttpClient& client, PendingRequest& request) {
    request.targetResponse = shared_from_this();
    client.replyStep(request, static_cast<const uint8_t*>(data), length, true);
  });
}

}  // namespace quorvel
