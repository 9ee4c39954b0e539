#include "revhttp/target_response.h"

#include <utility>

#include "core/handler_memory.h"

namespace quorvel {

constexpr std::size_t TargetResponse::SinkCapacity;

TargetResponse::TargetResponse(const ExchangeRef& exchange, MessageHeaders headers)
    : exchange_(exchange),
      headers_(std::move(headers)),
      sink_(std::allocate_shared<BodySink>(HandlerAllocator<BodySink>(), SinkCapacity)) {
  const ExchangeRef ref = exchange;
  sink_->setReadyHandler([ref]() { ref.with([](ExchangeLink& link) { link.pumpReply(); }); });
}

TargetResponse::~TargetResponse() = default;

void TargetResponse::start() {
  if (answered_) return;
  answered_ = true;
  exchange_.with([this](ExchangeLink& link) { link.answer(shared_from_this(), nullptr, 0, false); });
}

void TargetResponse::send(const void* data, std::size_t length) {
  if (answered_) return;
  answered_ = true;
  exchange_.with(
      [&](ExchangeLink& link) { link.answer(shared_from_this(), static_cast<const uint8_t*>(data), length, true); });
}

}  // namespace quorvel
