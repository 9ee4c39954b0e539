#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/system/error_code.hpp>

#include "http/http_client.h"
#include "http/message_headers.h"
#include "http/web_client.h"
#include "http/web_request.h"
#include "net/buffer_chain_ptr.h"
#include "net/buffer_pool.h"

namespace quorvel {
namespace testing {

inline std::string chainText(const BufferChain& chain) {
  std::string text(chain.size(), '\0');
  copyFromChain(chain.begin(), chain.end(), reinterpret_cast<uint8_t*>(&text[0]));
  return text;
}

inline BufferChainPtr makePiece(BufferChainAllocator& pool, const std::string& text) {
  BufferChain chain = pool.allocate(text.size());
  copyToChain(text.data(), text.data() + text.size(), chain.begin());
  return BufferChainPtr(chain);
}

class FakeClientResponse : public WebClientResponse {
 public:
  explicit FakeClientResponse(MessageHeaders headers) : headers_(std::move(headers)) {}
  const MessageHeaders& headers() const override { return headers_; }
  BodySource& body() override { return body_; }

 private:
  MessageHeaders headers_;
  BodySource body_;
};

// Records what the code under test asks for; the test plays the network.
class FakeClientRequest : public WebClientRequest {
 public:
  FakeClientRequest(std::shared_ptr<BufferChainAllocator> pool, const std::string& method, const std::string& scheme,
                    const std::string& hostValue, const std::string& connectHost, const std::string& path)
      : pool_(std::move(pool)),
        method(method),
        scheme(scheme),
        hostValue(hostValue),
        connectHost(connectHost),
        path(path),
        headers_(MessageHeaders::request(method, path)) {}

  void setResponseHandler(const ResponseHandler& handler) override { onResponse_ = handler; }
  void setErrorHandler(const ErrorHandler& handler) override { onError_ = handler; }
  void setBodyDataHandler(const BodyDataHandler&) override {}
  MessageHeaders& headers() override { return headers_; }
  void setCloseConnection() override {}
  void send(const void* data, std::size_t length) override {
    ++sends;
    body.assign(static_cast<const char*>(data), length);
    bodyEnded = true;
  }
  void startStreaming() override {
    streaming = true;
    upload_ = std::make_shared<BodySink>(uploadCapacity);
    upload_->setReadyHandler([this]() { if (drainUpload) take(); });
  }
  std::weak_ptr<BodySink> bodySink() override { return upload_; }
  bool isStarted() const override { return sends > 0 || streaming; }
  void cancel() override { cancelled = true; }

  // ---- test side
  // Takes what was streamed so far into `body`.
  void take() {
    if (!upload_) return;
    while (upload_->hasItem()) {
      BufferChainPtr piece = upload_->take();
      pieces.push_back(chainText(piece.chain()));
      body += pieces.back();
    }
    if (upload_->isEnded()) bodyEnded = true;
  }
  std::shared_ptr<FakeClientResponse> respond(const std::string& head) {
    auto response = std::make_shared<FakeClientResponse>(MessageHeaders::parseResponse(head.data(), head.size()));
    lastResponse = response;
    if (onResponse_) onResponse_(response);
    return response;
  }
  void bodyPiece(const std::string& text) { lastResponse->body().put(makePiece(*pool_, text)); }
  void bodyEnd() { lastResponse->body().end(); }
  void finish(const boost::system::error_code& code = boost::system::error_code()) {
    if (onError_ && !cancelled) onError_(code);
  }
  bool hasField(const std::string& name, const std::string& value) const {
    for (const MessageHeaders::Field& field : headers_) {
      if (field.name == StringSection(name) && field.value == StringSection(value)) return true;
    }
    return false;
  }

  std::shared_ptr<BufferChainAllocator> pool_;
  const std::string method, scheme, hostValue, connectHost, path;
  std::string body;
  std::vector<std::string> pieces;
  bool bodyEnded = false;
  bool streaming = false;
  bool cancelled = false;
  bool drainUpload = true;
  std::size_t uploadCapacity = 1;
  int sends = 0;
  std::shared_ptr<FakeClientResponse> lastResponse;

 private:
  MessageHeaders headers_;
  ResponseHandler onResponse_;
  ErrorHandler onError_;
  std::shared_ptr<BodySink> upload_;
};

class FakeHttpClient : public HttpClient {
 public:
  explicit FakeHttpClient(std::shared_ptr<BufferChainAllocator> pool) : pool_(std::move(pool)) {}

  std::shared_ptr<WebClientRequest> createRequest(const std::string& method, const std::string& scheme,
                                                  const std::string& hostValue, const std::string& connectHost,
                                                  const std::string& path) override {
    if (scheme == "https" && refuseHttps) throw std::runtime_error("HTTPS connections not supported");
    auto request = std::make_shared<FakeClientRequest>(pool_, method, scheme, hostValue, connectHost, path);
    requests.push_back(request);
    return request;
  }

  std::shared_ptr<FakeClientRequest> last() const { return requests.empty() ? nullptr : requests.back(); }
  std::string url(const FakeClientRequest& request) const {
    return request.scheme + "://" + request.connectHost + request.path;
  }

  std::vector<std::shared_ptr<FakeClientRequest>> requests;
  bool refuseHttps = false;

 private:
  std::shared_ptr<BufferChainAllocator> pool_;
};

}  // namespace testing
}  // namespace quorvel
