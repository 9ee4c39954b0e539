#include "http/net_http_client_request.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/log.h"
#include "http/http_names.h"
#include "http/net_http_client.h"

namespace quorvel {

namespace {

const log::Log Log("httpclient");

// A response head that has not ended by then is refused.
constexpr std::size_t MaxHeadBytes = 65536;

bool hasToken(const MessageHeaders& headers, const char* name, const char* value) {
  const auto field = headers.find(name);
  return field != headers.end() && field->value.equalsIgnoreCase(value);
}

// An HTTP/1.0 server closes after each response unless it says otherwise.
bool keepsConnection(const MessageHeaders& response) {
  return !response.version().equals(HttpVersion::V10) ||
         hasToken(response, HttpHeader::Connection, "keep-alive");
}

}  // namespace

class NetHttpClientResponse : public WebClientResponse {
 public:
  explicit NetHttpClientResponse(const MessageHeaders& headers) : headers_(headers) {}
  const MessageHeaders& headers() const override { return headers_; }
  BodySource& body() override { return source_; }

 private:
  MessageHeaders headers_;
  BodySource source_;
};

NetHttpClientRequest::NetHttpClientRequest(std::shared_ptr<Reactor> reactor,
                                           std::shared_ptr<BufferChainAllocator> allocator,
                                           std::shared_ptr<NameResolver> resolver,
                                           std::shared_ptr<HttpConnectionPool> pool,
                                           std::shared_ptr<RequestWatchdog> watchdog, const std::string& method,
                                           const std::string& scheme, const std::string& hostValue,
                                           const std::string& connectHost, const std::string& path)
    : reactor_(std::move(reactor)),
      allocator_(std::move(allocator)),
      resolver_(std::move(resolver)),
      pool_(std::move(pool)),
      watchdog_(std::move(watchdog)),
      method_(method),
      scheme_(scheme),
      hostValue_(hostValue),
      connectHost_(connectHost),
      path_(path.empty() ? "/" : path),
      headers_(MessageHeaders::request(method_, path_)),
      timeout_(NetHttpClient::RequestTimeout),
      sender_(reinterpret_cast<uintptr_t>(this), allocator_),
      reader_(std::make_unique<ResponseHeadReader>(reinterpret_cast<uintptr_t>(this))) {
  if (!headers_.isValid()) throw std::invalid_argument("Request line too long");
  headers_.addField(HttpHeader::Host, hostValue_);
  NetHttpClient::splitConnectHost(connectHost_, scheme_, host_, service_);
}

NetHttpClientRequest::~NetHttpClientRequest() {
  watchdog_->remove(this);
  if (connection_) releaseConnection(true);
}

void NetHttpClientRequest::begin() {
  touch();
  watchdog_->add(shared_from_this());
  QLOG(Log, log::Debug, "Resolving host %s", connectHost_);
  std::weak_ptr<NetHttpClientRequest> self = weak();
  resolver_->resolve(host_, service_, [self](const NameResolver::Result& result, bool found) {
    if (auto request = self.lock()) request->onResolved(result, found);
  });
}

void NetHttpClientRequest::onResolved(const NameResolver::Result& result, bool found) {
  if (done_) return;
  touch();
  if (!found) {
    QLOG(Log, log::Notice, "Failed to resolve host %s", connectHost_);
    fail(HttpClientError::ResolveFailed);
    return;
  }
  destination_.host = host_;
  // The system gives each address once per socket type.
  for (const SocketAddress& address : result.addresses) {
    if (std::find(destination_.addresses.begin(), destination_.addresses.end(), address) ==
        destination_.addresses.end()) {
      destination_.addresses.push_back(address);
    }
  }
  QLOG(Log, log::Debug, "Host %s resolved to %s, requesting a connection", connectHost_,
       destination_.addressText());
  requestConnection();
}

void NetHttpClientRequest::requestConnection() {
  std::weak_ptr<NetHttpClientRequest> self = weak();
  pool_->requestConnection(destination_, token_, [self](const std::shared_ptr<HttpConnection>& connection) {
    if (auto request = self.lock()) {
      request->onConnection(connection);
    } else {
      connection->close();
    }
  });
}

void NetHttpClientRequest::onConnection(const std::shared_ptr<HttpConnection>& connection) {
  connection_ = connection;
  if (done_) {
    releaseConnection(true);
    return;
  }
  touch();
  switch (connection->state()) {
    case HttpConnection::Connected:
      QLOG(Log, log::Debug, "Got an already connected connection for %s, %s", connectHost_,
           connection->remoteAddress().toString());
      reused_ = true;
      onConnected();
      break;
    case HttpConnection::Unconnected:
      QLOG(Log, log::Debug, "Got a not yet connected connection for %s, %s", connectHost_,
           destination_.addressText());
      connectAll();
      break;
    default:
      QLOG(Log, log::Warning, "Got connection in unexpected state %u for %s, %s",
           static_cast<unsigned>(connection->state()), connectHost_, destination_.addressText());
      fail(HttpClientError::ConnectFailed);
      break;
  }
}

void NetHttpClientRequest::connectAll() {
  std::weak_ptr<NetHttpClientRequest> self = weak();
  connection_->connectAny(
      id(),
      [self](int error) {
        if (auto request = self.lock()) request->onConnect(error);
      },
      // A failed attempt is progress too: the next address gets its own time.
      [self]() {
        if (auto request = self.lock()) request->touch();
      });
}

void NetHttpClientRequest::onConnect(int error) {
  if (done_) return;
  touch();
  if (error) {
    fail(HttpClientError::ConnectFailed);
    return;
  }
  onConnected();
}

void NetHttpClientRequest::onConnected() {
  connected_ = true;
  std::weak_ptr<NetHttpClientRequest> self = weak();
  connection_->setReceiveHandler([self](int error, BufferChain& data) {
    if (auto request = self.lock()) request->onReceive(error, data);
  });
  // Reading from the start also notices a reused connection that the server
  // has closed.
  connection_->receive();
  startSending();
}

void NetHttpClientRequest::setCloseConnection() {
  const auto field = headers_.find(HttpHeader::Connection);
  if (field != headers_.end() && field->value.equalsIgnoreCase("close")) return;
  headers_.addField(HttpHeader::Connection, "close");
}

void NetHttpClientRequest::send(const void* data, std::size_t length) {
  if (started_) throw BadCallError("Request already started");
  started_ = true;
  if (length > 0 && !headers_.has(HttpHeader::ContentLength)) {
    headers_.addField(HttpHeader::ContentLength, static_cast<uint32_t>(length));
  }
  if (!sender_.setWhole(headers_, data, length)) {
    failLater(HttpClientError::OutOfMemory);
    return;
  }
  startSending();
}

void NetHttpClientRequest::startStreaming() {
  if (started_) throw BadCallError("Request already started");
  started_ = true;
  const bool chunked = !headers_.has(HttpHeader::ContentLength);
  if (chunked) headers_.addField(HttpHeader::TransferEncoding, "chunked");
  bodySink();
  std::weak_ptr<NetHttpClientRequest> self = weak();
  bodySink_->setReadyHandler([self]() {
    if (auto request = self.lock()) request->pumpBody();
  });
  if (!sender_.setStreaming(headers_, chunked)) {
    failLater(HttpClientError::OutOfMemory);
    return;
  }
  startSending();
}

void NetHttpClientRequest::startSending() {
  if (!started_ || !connected_ || done_ || !sender_.hasHead()) return;
  QLOG(Log, log::Debug, "0x%x: Starting request: '%s %s' with %u bytes of data", id(), method_, path_,
       sender_.bodyBytes());
  // Asked for by the caller: the server may close without saying so.
  closeAfter_ = closeAfter_ || hasToken(headers_, HttpHeader::Connection, "close");
  // Kept for retryOnNewConnection(): only a reused connection can have been
  // closed under us, and only a repeatable request can be sent again.
  const BufferChainPtr chain = sender_.takeHead(reused_ && (method_ == "GET" || method_ == "HEAD"));
  std::weak_ptr<NetHttpClientRequest> self = weak();
  connection_->send(chain, [self, attempt = sender_.attempt()](int error, std::size_t bytes) {
    if (auto request = self.lock()) request->onSent(error, bytes, false, attempt);
  });
}

void NetHttpClientRequest::pumpBody() {
  if (done_) return;
  BufferChain chain;
  switch (sender_.nextPiece(*bodySink_, chain)) {
    case RequestSender::Piece::None:
      return;
    case RequestSender::Piece::OutOfMemory:
      // The pump may run inside the producer's put(): report it later.
      failLater(HttpClientError::OutOfMemory);
      return;
    case RequestSender::Piece::Ready:
      break;
  }
  std::weak_ptr<NetHttpClientRequest> self = weak();
  connection_->send(BufferChainPtr(chain), [self, attempt = sender_.attempt()](int error, std::size_t bytes) {
    if (auto request = self.lock()) request->onSent(error, bytes, true, attempt);
  });
}

void NetHttpClientRequest::onSent(int error, std::size_t bytes, bool body, unsigned attempt) {
  if (attempt != sender_.attempt()) return;
  sender_.onSendDone();
  if (done_) return;
  if (error) {
    if (retryOnNewConnection()) return;
    if (body) {
      QLOG(Log, log::Notice, "0x%x: Content send failed with code %u", id(), static_cast<unsigned>(error));
      fail(HttpClientError::RequestBodyFailed);
    } else {
      QLOG(Log, log::Notice, "0x%x: Send failed with code %d", id(), error);
      fail(HttpClientError::SendFailed);
    }
    return;
  }
  touch();
  if (sender_.onSent(bytes)) pumpBody();
}

// A kept connection may have been closed by the server just as it was taken
// from the pool: a race no caller can avoid, which would otherwise fail a
// request that never reached the server. A GET or HEAD that got no byte of
// answer on it goes once more on a new connection; those are safe to repeat,
// whereas the server may already have acted on any other method. Once only,
// so that a server that always closes is reported rather than looped on.
bool NetHttpClientRequest::retryOnNewConnection() {
  if (done_ || !sender_.rewind()) return false;
  QLOG(Log, log::Debug, "0x%x: Kept connection closed by the server, retrying on a new one", id());
  releaseConnection(true);
  reused_ = false;
  requestConnection();
  return true;
}

void NetHttpClientRequest::onReceive(int error, BufferChain& data) {
  if (done_) return;
  // The handlers may drop the caller's last reference.
  std::shared_ptr<NetHttpClientRequest> hold = shared_from_this();
  if ((error || data.empty()) && reader_->receivedBytes() == 0 && retryOnNewConnection()) return;
  if (error) {
    QLOG(Log, log::Notice, "0x%x: Receive error: %d", id(), error);
    fail(HttpClientError::ReceiveFailed);
    return;
  }
  if (data.empty()) {
    closeAfter_ = true;
    if (!parser_ && reader_->state() == ResponseHeadReader::State::Collecting) {
      QLOG(Log, log::Notice, "0x%x: Connection lost before response received", id());
      fail(HttpClientError::ConnectionLost);
      return;
    }
    if (parser_) {
      parser_->end();
      deliverBody();
    }
    return;
  }
  touch();
  QLOG(Log, log::Spam, "0x%x: Received %u bytes", id(), data.size());
  if (parser_) {
    parser_->feed(data);
    deliverBody();
    return;
  }
  sender_.dropResend();
  switch (reader_->feed(data)) {
    case ResponseHeadReader::State::Collecting:
      if (reader_->receivedBytes() > MaxHeadBytes) {
        QLOG(Log, log::Notice, "0x%x: No end of the response head in %u bytes", id(), reader_->receivedBytes());
        fail(HttpClientError::HeadTooLarge);
        return;
      }
      connection_->receive();
      return;
    case ResponseHeadReader::State::Bad:
      QLOG(Log, log::Notice, "0x%x: %s", id(), ResponseHeadReader::BadFormatText);
      fail(HttpClientError::BadResponse);
      return;
    case ResponseHeadReader::State::Complete:
      onHead();
      return;
  }
}

void NetHttpClientRequest::onHead() {
  response_ = std::make_shared<NetHttpClientResponse>(reader_->headers());
  closeAfter_ = closeAfter_ || reader_->closeConnection() || !keepsConnection(response_->headers());
  BufferChain rest = reader_->takeBodyBytes();
  const bool hasBody = reader_->hasBody(method_);
  if (hasBody) {
    parser_ = reader_->makeBodyParser(allocator_);
    std::weak_ptr<NetHttpClientRequest> self = weak();
    response_->body().setUnblockedHandler([self]() {
      if (auto request = self.lock()) request->onUnblocked();
    });
  } else if (!rest.empty()) {
    // Bytes that belong to no response: the connection is out of step.
    closeAfter_ = true;
  }
  if (responseHandler_) {
    ResponseHandler handler = responseHandler_;
    handler(response_);
  }
  if (done_) {
    rest.releaseBuffers();
    return;
  }
  if (!hasBody) {
    rest.releaseBuffers();
    endBody();
    if (!done_) complete();
    return;
  }
  parser_->feed(rest);
  deliverBody();
}

void NetHttpClientRequest::deliverBody() {
  BufferChainPtr data = parser_->takeData();
  bool more = true;
  if (data) {
    if (bodyDataHandler_) {
      BodyDataHandler handler = bodyDataHandler_;
      handler(data, false);
    } else {
      more = response_->body().put(data);
    }
    if (done_) return;
  }
  if (parser_->isFailed()) {
    QLOG(Log, log::Notice, "0x%x: %s", id(), make_error_code(HttpClientError::BadBody).message());
    fail(HttpClientError::BadBody);
    return;
  }
  if (parser_->isFinished()) {
    QLOG(Log, log::Debug, "0x%x: Parser finished, completing request", id());
    endBody();
    if (!done_) complete();
    return;
  }
  if (!more) {
    QLOG(Log, log::Debug, "0x%x: Source is blocked", id());
    paused_ = true;
    return;
  }
  connection_->receive();
}

void NetHttpClientRequest::endBody() {
  if (bodyDataHandler_) {
    BodyDataHandler handler = bodyDataHandler_;
    handler(BufferChainPtr(), true);
  } else {
    response_->body().end();
  }
}

void NetHttpClientRequest::onUnblocked() {
  if (!paused_ || done_) return;
  paused_ = false;
  touch();
  connection_->receive();
}

// Time spent waiting for a slow consumer does not count: only the network
// (and the request's own body producer) can make a request time out.
void NetHttpClientRequest::checkTimeout() {
  if (done_) return;
  const Time now = reactor_->timeProvider()->now();
  if (paused_) lastActivity_ = now;
  if (now < lastActivity_ + timeout_) return;
  QLOG(Log, log::Notice, "Request timed out: %s", text());
  fail(HttpClientError::TimedOut);
}

void NetHttpClientRequest::complete() {
  // A response that ended before the request body was sent leaves the
  // connection in the middle of a request.
  releaseConnection(closeAfter_ || !sender_.isFinished());
  finish(boost::system::error_code());
}

void NetHttpClientRequest::fail(HttpClientError error) {
  if (done_) return;
  releaseConnection(true);
  finish(make_error_code(error));
}

void NetHttpClientRequest::failLater(HttpClientError error) {
  std::weak_ptr<NetHttpClientRequest> self = weak();
  reactor_->post(token_, [self, error]() {
    if (auto request = self.lock()) request->fail(error);
  });
}

void NetHttpClientRequest::finish(const boost::system::error_code& code) {
  done_ = true;
  watchdog_->remove(this);
  paused_ = false;
  if (bodySink_) bodySink_->setReadyHandler(Delegate<void()>());
  ErrorHandler handler = std::move(errorHandler_);
  responseHandler_.clear();
  bodyDataHandler_.clear();
  errorHandler_.clear();
  if (handler) handler(code);
}

void NetHttpClientRequest::releaseConnection(bool close) {
  if (!connection_) return;
  std::shared_ptr<HttpConnection> connection = std::move(connection_);
  connection_.reset();
  connected_ = false;
  if (close) connection->close();
  pool_->releaseConnection(connection, close);
}

void NetHttpClientRequest::cancel() {
  if (done_) return;
  done_ = true;
  watchdog_->remove(this);
  // Expire the pool's hold on this request and the pending timer.
  token_ = makeLifetimeToken();
  responseHandler_.clear();
  errorHandler_.clear();
  bodyDataHandler_.clear();
  if (bodySink_) bodySink_->setReadyHandler(Delegate<void()>());
  releaseConnection(true);
}

}  // namespace quorvel
