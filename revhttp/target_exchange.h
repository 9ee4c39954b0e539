#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "http/message_headers.h"
#include "http/web_request.h"
#include "revhttp/reverse_http_client.h"

namespace quorvel {

// The relayed request as the request handler sees it: the head exactly as it
// was relayed, the rest of the relay response's body as its body.
class ReverseHttpClient::TargetRequest : public WebRequest, public std::enable_shared_from_this<TargetRequest> {
 public:
  TargetRequest(const PendingHandle& pending, MessageHeaders headers);
  ~TargetRequest() override;

  void setBodyDataHandler(const BodyDataHandler& handler) override;
  const MessageHeaders& headers() const override { return headers_; }
  const WebClientInfo& clientInfo() const override { return clientInfo_; }
  bool isBodyComplete() const override { return bodyComplete_; }
  bool isActive() const override;
  std::weak_ptr<WebRequest> weakRef() override { return shared_from_this(); }
  using WebRequest::createResponse;
  std::shared_ptr<WebResponse> createResponse(uint32_t statusCode, StringSection reason) override;

  // From the relay: body pieces (held until a handler is set) and the end.
  void deliver(const BufferChainPtr& piece);
  void deliverEnd();

 private:
  std::unique_ptr<PendingHandle> pending_;
  MessageHeaders headers_;
  WebClientInfo clientInfo_;
  BodyDataHandler handler_;
  std::deque<BufferChainPtr> held_;
  bool bodyComplete_ = false;
  bool endDelivered_ = false;
};

// The handler's answer. The first start() or send() posts it back to the
// relay; a started response's body goes through bodySink(), whose fill level
// holds back a producer while the reply upload cannot take more.
class ReverseHttpClient::TargetResponse : public WebResponse, public std::enable_shared_from_this<TargetResponse> {
 public:
  // Body pieces queued before the reply upload is ready for more.
  static constexpr std::size_t SinkCapacity = 4;

  TargetResponse(const PendingHandle& pending, MessageHeaders headers);
  ~TargetResponse() override;

  MessageHeaders& headers() override { return headers_; }
  void start() override;
  void send(const void* data, std::size_t length) override;
  std::weak_ptr<BodySink> bodySink() override { return sink_; }

  BodySink& sink() { return *sink_; }

 private:
  std::unique_ptr<PendingHandle> pending_;
  MessageHeaders headers_;
  std::shared_ptr<BodySink> sink_;
  bool answered_ = false;
};

}  // namespace quorvel
