#pragma once

// Test stand-ins for both sides of the HTTP interfaces: the serving side
// (FakeWebRequest, FakeWebResponse: what a handler is given) and the client
// side (FakeHttpClient, FakeClientRequest, FakeClientResponse: what a handler
// talks to). Everything runs synchronously on the test's thread; the test
// plays the other party by calling the driving operations.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/system/error_code.hpp>

#include "http/http_client.h"
#include "http/message_headers.h"
#include "http/web_client.h"
#include "http/web_request.h"
#include "net/buffer_chain.h"
#include "net/buffer_chain_ptr.h"
#include "net/buffer_pool.h"

namespace quorvel {
namespace testing {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// Buffers for test bodies. Never destroyed: chains may outlive any test.
inline BufferPool& fakeBufferPool() {
  static BufferPool* pool = new BufferPool(512, 0, 0);
  return *pool;
}

inline BufferChainPtr bodyPiece(const std::string& text) {
  BufferChain chain = fakeBufferPool().allocate(text.size());
  copyToChain(text.data(), text.data() + text.size(), chain.begin());
  return BufferChainPtr(chain);
}

inline std::string pieceText(const BufferChainPtr& piece) {
  if (!piece) return std::string();
  const BufferChain& chain = piece.chain();
  std::string text(chain.size(), '\0');
  copyFromChain(chain.begin(), chain.end(), reinterpret_cast<uint8_t*>(&text[0]));
  return text;
}

inline std::string wireText(const MessageHeaders& headers) { return std::string(headers.data(), headers.size()); }

// Values of every field with this name (without regard to case), in order.
inline std::vector<std::string> fieldValues(const MessageHeaders& headers, const std::string& name) {
  std::vector<std::string> values;
  for (const MessageHeaders::Field& field : headers) {
    if (field.name.equalsIgnoreCase(name)) values.push_back(field.value.str());
  }
  return values;
}

// Drains a body sink into text while it is not held; holding it leaves the
// pieces queued, so the sink fills and its source is blocked.
class SinkReader {
 public:
  explicit SinkReader(std::size_t capacity = 1) : sink_(std::make_shared<BodySink>(capacity)) {
    sink_->setReadyHandler([this] { drain(); });
  }
  SinkReader(const SinkReader&) = delete;
  SinkReader& operator=(const SinkReader&) = delete;

  std::weak_ptr<BodySink> handle() { return sink_; }
  BodySink& sink() { return *sink_; }
  // Drops the sink: its handle expires.
  void drop() { sink_.reset(); }

  void hold() { held_ = true; }
  // Stops holding and takes everything queued.
  void release() {
    held_ = false;
    drain();
  }
  // Takes one queued piece even while held; false when none was queued.
  bool takeOne() {
    if (!sink_ || !sink_->hasItem()) return false;
    text_ += pieceText(sink_->take());
    ++pieces_;
    return true;
  }

  const std::string& text() const { return text_; }
  std::size_t pieces() const { return pieces_; }
  bool ended() const { return ended_; }

 private:
  void drain() {
    if (!sink_) return;
    while (!held_ && takeOne()) {
    }
    if (sink_ && sink_->isEnded()) ended_ = true;
  }

  std::shared_ptr<BodySink> sink_;
  bool held_ = false;
  std::string text_;
  std::size_t pieces_ = 0;
  bool ended_ = false;
};

// ---- serving side

class FakeWebResponse : public WebResponse {
 public:
  explicit FakeWebResponse(MessageHeaders headers) : headers_(std::move(headers)) {}

  MessageHeaders& headers() override { return headers_; }
  void start() override { ++starts; }
  void send(const void* data, std::size_t length) override {
    ++sends;
    sent.assign(static_cast<const char*>(data), data ? length : 0);
  }
  std::weak_ptr<BodySink> bodySink() override { return body.handle(); }

  // The head as it would go out.
  std::string wire() const { return wireText(headers_); }
  // Whatever came through send() followed by what the sink delivered.
  std::string bodyText() const { return sent + body.text(); }

  MessageHeaders headers_;
  int starts = 0;
  int sends = 0;
  std::string sent;
  // The streamed body; hold() it to play a slow consumer, drop() it to play
  // a response that cannot take a body.
  SinkReader body;
};

// A request as a handler gets it. Body pieces pushed before the handler has
// set its body data handler are kept and delivered to it first.
class FakeWebRequest : public WebRequest, public std::enable_shared_from_this<FakeWebRequest> {
 public:
  // `head` is the start line and field lines, each ending in "\r\n". The body
  // counts as complete unless the head says there is one.
  static std::shared_ptr<FakeWebRequest> make(const std::string& head) {
    auto request = std::make_shared<FakeWebRequest>();
    request->headers_ = MessageHeaders::parseRequest(head.data(), head.size());
    if (!request->headers_.isValid()) throw std::invalid_argument("Bad test request head");
    request->bodyComplete = !request->headers_.hasBody();
    return request;
  }

  void setBodyDataHandler(const BodyDataHandler& handler) override {
    handler_ = handler;
    std::vector<std::pair<BufferChainPtr, bool>> early;
    early.swap(early_);
    for (const auto& piece : early) handler_(piece.first, piece.second);
  }
  const MessageHeaders& headers() const override { return headers_; }
  const WebClientInfo& clientInfo() const override { return info; }
  bool isBodyComplete() const override { return bodyComplete; }
  bool isActive() const override { return active; }
  std::weak_ptr<WebRequest> weakRef() override { return shared_from_this(); }
  using WebRequest::createResponse;
  std::shared_ptr<WebResponse> createResponse(uint32_t code, StringSection reason) override {
    response = std::make_shared<FakeWebResponse>(MessageHeaders::response(code, reason));
    ++responses;
    return response;
  }

  // ---- driving
  void pushBody(const std::string& text) { deliver(bodyPiece(text), false); }
  void endBody() {
    bodyComplete = true;
    deliver(BufferChainPtr(), true);
  }

  MessageHeaders headers_;
  WebClientInfo info;
  bool bodyComplete = true;
  bool active = true;
  int responses = 0;
  std::shared_ptr<FakeWebResponse> response;  // the last one created

 private:
  void deliver(const BufferChainPtr& piece, bool end) {
    if (handler_) {
      handler_(piece, end);
    } else {
      early_.emplace_back(piece, end);
    }
  }

  BodyDataHandler handler_;
  std::vector<std::pair<BufferChainPtr, bool>> early_;
};

// ---- client side

class FakeClientResponse : public WebClientResponse {
 public:
  FakeClientResponse(MessageHeaders headers, bool hasBody) : headers_(std::move(headers)), hasBody_(hasBody) {}

  const MessageHeaders& headers() const override { return headers_; }
  bool hasBody() const override { return hasBody_; }
  BodySource& body() override { return source; }

  // Returns false when the consumer is full (the client would pause reading).
  bool put(const std::string& text) { return source.put(bodyPiece(text)); }
  void end() { source.end(); }

  MessageHeaders headers_;
  bool hasBody_;
  BodySource source;
};

// A request as FakeHttpClient hands it out. It keeps the contract of the
// interface where the contract is visible to the caller (Content-Length on
// send, Transfer-Encoding: chunked on startStreaming) and records the rest.
class FakeClientRequest : public WebClientRequest {
 public:
  FakeClientRequest(std::string method, std::string scheme, std::string hostValue, std::string connectHost,
                    std::string path)
      : method(std::move(method)),
        scheme(std::move(scheme)),
        hostValue(std::move(hostValue)),
        connectHost(std::move(connectHost)),
        path(std::move(path)),
        headers_(MessageHeaders::request(this->method, this->path)) {}

  void setResponseHandler(const ResponseHandler& handler) override { responseHandler_ = handler; }
  void setErrorHandler(const ErrorHandler& handler) override { errorHandler_ = handler; }
  void setBodyDataHandler(const BodyDataHandler& handler) override { bodyDataHandler = handler; }
  MessageHeaders& headers() override { return headers_; }
  void setCloseConnection() override {
    if (!closeConnection) headers_.addField(HttpHeader::Connection, "close");
    closeConnection = true;
  }
  void send(const void* data, std::size_t length) override {
    ++sends;
    if (length) headers_.addField(HttpHeader::ContentLength, static_cast<uint32_t>(length));
    sentBody.assign(static_cast<const char*>(data), data ? length : 0);
    started = true;
  }
  void startStreaming() override {
    ++streamStarts;
    piecesAtStart = body.pieces();
    endedAtStart = body.ended();
    if (!headers_.has(HttpHeader::ContentLength)) headers_.addField(HttpHeader::TransferEncoding, "chunked");
    started = true;
  }
  std::weak_ptr<BodySink> bodySink() override { return body.handle(); }
  bool isStarted() const override { return started; }
  void cancel() override { ++cancels; }

  // ---- driving: the target's side. These call the caller's handlers even
  // after cancel(), as a careless client would; check `cancels` to see
  // whether the caller asked.

  // Delivers a response head and returns the response for its body.
  std::shared_ptr<FakeClientResponse> respond(uint32_t code, const std::string& reason,
                                              const HeaderList& fields = HeaderList()) {
    MessageHeaders head = MessageHeaders::response(code, reason);
    for (const auto& field : fields) head.addField(field.first, field.second);
    const bool hasBody = head.hasBody(method);
    response = std::make_shared<FakeClientResponse>(std::move(head), hasBody);
    if (responseHandler_) responseHandler_(response);
    return response;
  }
  // Ends the exchange: success, or an error such as
  // boost::asio::error::connection_refused.
  void complete(const boost::system::error_code& code = boost::system::error_code()) {
    if (errorHandler_) errorHandler_(code);
  }

  const std::string method, scheme, hostValue, connectHost, path;
  MessageHeaders headers_;
  bool started = false;
  bool closeConnection = false;
  int sends = 0;
  int streamStarts = 0;
  // What the body sink had been given when the head went out: a real
  // request writes that with the head.
  std::size_t piecesAtStart = 0;
  bool endedAtStart = false;
  int cancels = 0;
  std::string sentBody;  // from send()
  // The streamed request body; hold() it to play a client that cannot write.
  SinkReader body;
  BodyDataHandler bodyDataHandler;
  std::shared_ptr<FakeClientResponse> response;  // the last one delivered

 private:
  ResponseHandler responseHandler_;
  ErrorHandler errorHandler_;
};

// Hands out FakeClientRequests and keeps them, oldest first.
class FakeHttpClient : public HttpClient {
 public:
  std::shared_ptr<WebClientRequest> createRequest(const std::string& method, const std::string& scheme,
                                                  const std::string& hostValue, const std::string& connectHost,
                                                  const std::string& path) override {
    if (!refusal.empty()) throw std::runtime_error(refusal);
    auto request = std::make_shared<FakeClientRequest>(method, scheme, hostValue, connectHost, path);
    requests.push_back(request);
    return request;
  }

  FakeClientRequest& last() { return *requests.back(); }

  // When not empty, createRequest throws a runtime error with this text.
  std::string refusal;
  std::vector<std::shared_ptr<FakeClientRequest>> requests;
};

}  // namespace testing
}  // namespace quorvel
