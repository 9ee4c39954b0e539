#include "revhttp/target_request.h"

#include <utility>

#include "core/handler_memory.h"
#include "revhttp/target_response.h"

namespace quorvel {

TargetRequest::TargetRequest(const ExchangeRef& exchange, MessageHeaders headers)
    : exchange_(exchange), headers_(std::move(headers)) {}

TargetRequest::~TargetRequest() = default;

void TargetRequest::setBodyDataHandler(const BodyDataHandler& handler) {
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

void TargetRequest::deliver(const BufferChainPtr& piece) {
  if (bodyComplete_) return;
  if (!handler_ || !held_.empty()) {
    held_.push_back(piece);
    return;
  }
  BodyDataHandler call = handler_;
  call(piece, false);
}

void TargetRequest::deliverEnd() {
  if (bodyComplete_) return;
  bodyComplete_ = true;
  if (handler_ && held_.empty() && !endDelivered_) {
    endDelivered_ = true;
    BodyDataHandler call = handler_;
    call(BufferChainPtr(), true);
  }
}

std::shared_ptr<WebResponse> TargetRequest::createResponse(uint32_t statusCode, StringSection reason) {
  return std::allocate_shared<TargetResponse>(HandlerAllocator<TargetResponse>(), exchange_,
                                              MessageHeaders::response(statusCode, reason));
}

}  // namespace quorvel
