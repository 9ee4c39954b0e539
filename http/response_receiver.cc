#include "http/response_receiver.h"

#include <utility>

#include "core/log.h"
#include "http/http_names.h"
#include "http/net_http_client_response.h"

namespace quorvel {

namespace {

const log::Log Log("httpclient");

// A response head that has not ended by then is refused.
constexpr std::size_t MaxHeadBytes = 65536;

// An HTTP/1.0 server closes after each response unless it says otherwise.
bool keepsConnection(const MessageHeaders& response) {
  if (!response.version().equals(HttpVersion::V10)) return true;
  const auto field = response.find(HttpHeader::Connection);
  return field != response.end() && field->value.equalsIgnoreCase("keep-alive");
}

}  // namespace

ResponseReceiver::ResponseReceiver(Owner& owner, uintptr_t identity, std::shared_ptr<BufferChainAllocator> allocator)
    : owner_(owner), identity_(identity), reader_(identity), plain_(false, 0), chunked_(std::move(allocator)) {}

ResponseReceiver::~ResponseReceiver() = default;

void ResponseReceiver::open(StringSection method, LifetimeRef<ResponseReceiver> self) {
  headRequest_ = method == StringSection("HEAD");
  self_ = self;
  reader_.reset();
  parser_ = nullptr;
  response_.reset();
  close_ = paused_ = stopped_ = false;
  responseHandler_.clear();
  bodyDataHandler_.clear();
}

void ResponseReceiver::close() {
  stop();
  shared_.reset();
  reader_.reset();
  plain_.reset(false, 0);
  chunked_.reset();
  parser_ = nullptr;
}

void ResponseReceiver::feed(BufferChain& data) {
  if (parser_) {
    parser_->feed(data);
    deliverBody();
    return;
  }
  switch (reader_.feed(data)) {
    case ResponseHeadReader::State::Collecting:
      if (reader_.receivedBytes() > MaxHeadBytes) {
        QLOG(Log, log::Notice, "0x%x: No end of the response head in %u bytes", identity_, reader_.receivedBytes());
        fail(HttpClientError::HeadTooLarge);
        return;
      }
      owner_.receiveMore();
      return;
    case ResponseHeadReader::State::Bad:
      QLOG(Log, log::Notice, "0x%x: %s", identity_, ResponseHeadReader::BadFormatText);
      fail(HttpClientError::BadResponse);
      return;
    case ResponseHeadReader::State::Complete:
      onHead();
      return;
  }
}

void ResponseReceiver::end() {
  close_ = true;
  if (!parser_ && reader_.state() == ResponseHeadReader::State::Collecting) {
    QLOG(Log, log::Notice, "0x%x: Connection lost before response received", identity_);
    fail(HttpClientError::ConnectionLost);
    return;
  }
  if (parser_) {
    parser_->end();
    deliverBody();
  }
}

void ResponseReceiver::onHead() {
  const bool hasBody = reader_.hasBody(headRequest_ ? StringSection("HEAD") : StringSection());
  reader_.giveHeaders(response_.head());
  response_.setHasBody(hasBody);
  shared_ = owner_.shareResponse(response_);
  close_ = close_ || reader_.closeConnection() || !keepsConnection(response_.headers());
  BufferChain rest = reader_.takeBodyBytes();
  if (hasBody) {
    parser_ = &reader_.prepareBodyParser(plain_, chunked_);
    response_.body().setUnblockedHandler([self = self_]() {
      if (auto receiver = self.lock()) receiver->onUnblocked();
    });
  } else if (!rest.empty()) {
    // Bytes that belong to no response: the connection is out of step.
    close_ = true;
  }
  if (responseHandler_) {
    ResponseHandler handler = responseHandler_;
    // The handle, not the member: the handler may drop the request, and
    // with it this receiver's own copy.
    const std::shared_ptr<WebClientResponse> response = shared_;
    handler(response);
  }
  if (stopped_) {
    rest.releaseBuffers();
    return;
  }
  if (!hasBody) {
    rest.releaseBuffers();
    endBody();
    if (!stopped_) owner_.responseComplete();
    return;
  }
  parser_->feed(rest);
  deliverBody();
}

void ResponseReceiver::deliverBody() {
  BufferChainPtr data = parser_->takeData();
  bool more = true;
  if (data) {
    if (bodyDataHandler_) {
      BodyDataHandler handler = bodyDataHandler_;
      handler(data, false);
    } else {
      more = response_.body().put(data);
    }
    if (stopped_) return;
  }
  if (parser_->isFailed()) {
    QLOG(Log, log::Notice, "0x%x: %s", identity_, make_error_code(HttpClientError::BadBody).message());
    fail(HttpClientError::BadBody);
    return;
  }
  if (parser_->isFinished()) {
    QLOG(Log, log::Debug, "0x%x: Parser finished, completing request", identity_);
    endBody();
    if (!stopped_) owner_.responseComplete();
    return;
  }
  if (!more) {
    QLOG(Log, log::Debug, "0x%x: Source is blocked", identity_);
    paused_ = true;
    return;
  }
  owner_.receiveMore();
}

void ResponseReceiver::endBody() {
  if (bodyDataHandler_) {
    BodyDataHandler handler = bodyDataHandler_;
    handler(BufferChainPtr(), true);
  } else {
    response_.body().end();
  }
}

void ResponseReceiver::onUnblocked() {
  if (!paused_ || stopped_) return;
  paused_ = false;
  owner_.receiveMore();
}

void ResponseReceiver::fail(HttpClientError error) { owner_.responseFailed(error); }

void ResponseReceiver::stop() {
  stopped_ = true;
  responseHandler_.clear();
  bodyDataHandler_.clear();
}

}  // namespace quorvel
