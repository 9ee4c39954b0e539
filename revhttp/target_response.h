#pragma once

#include <cstddef>
#include <memory>

#include "http/message_headers.h"
#include "http/web_request.h"
#include "revhttp/exchange_link.h"

namespace quorvel {

// The handler's answer to a relayed request. The first start() or send()
// hands it to the exchange, which posts it back to the relay; a started
// response's body goes through bodySink(), whose fill level holds back a
// producer while the reply upload cannot take more.
class TargetResponse : public WebResponse, public std::enable_shared_from_this<TargetResponse> {
 public:
  // Body pieces queued before the reply upload is ready for more.
  static constexpr std::size_t SinkCapacity = 4;

  TargetResponse(const ExchangeRef& exchange, MessageHeaders headers);
  ~TargetResponse() override;

  MessageHeaders& headers() override { return headers_; }
  void start() override;
  void send(const void* data, std::size_t length) override;
  std::weak_ptr<BodySink> bodySink() override { return sink_; }

  BodySink& sink() { return *sink_; }

 private:
  const ExchangeRef exchange_;
  MessageHeaders headers_;
  std::shared_ptr<BodySink> sink_;
  // Only the first answer counts; later calls do nothing.
  bool answered_ = false;
};

}  // namespace quorvel
