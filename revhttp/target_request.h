#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include "http/message_headers.h"
#include "http/web_request.h"
#include "revhttp/exchange_link.h"

namespace quorvel {

// The relayed request as the request handler sees it: the head exactly as it
// was relayed, the rest of the relay response's body as its body.
class TargetRequest : public WebRequest, public std::enable_shared_from_this<TargetRequest> {
 public:
  TargetRequest(const ExchangeRef& exchange, MessageHeaders headers);
  ~TargetRequest() override;

  void setBodyDataHandler(const BodyDataHandler& handler) override;
  const MessageHeaders& headers() const override { return headers_; }
  const WebClientInfo& clientInfo() const override { return clientInfo_; }
  bool isBodyComplete() const override { return bodyComplete_; }
  bool isActive() const override { return exchange_.isActive(); }
  std::weak_ptr<WebRequest> weakRef() override { return shared_from_this(); }
  using WebRequest::createResponse;
  std::shared_ptr<WebResponse> createResponse(uint32_t statusCode, StringSection reason) override;

  // From the relay: body pieces (held until a handler is set) and the end.
  void deliver(const BufferChainPtr& piece);
  void deliverEnd();

 private:
  const ExchangeRef exchange_;
  MessageHeaders headers_;
  WebClientInfo clientInfo_;
  BodyDataHandler handler_;
  std::deque<BufferChainPtr> held_;
  bool bodyComplete_ = false;
  bool endDelivered_ = false;
};

}  // namespace quorvel
