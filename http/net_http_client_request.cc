#include "http/net_http_client_request.h"

#include <stdexcept>
#include <utility>

#include "core/handler_memory.h"
#include "core/log.h"
#include "http/http_names.h"
#include "http/net_http_client.h"
#include "http/string_section.h"

namespace quorvel {

namespace {

const log::Log Log("httpclient");

const StringSection LengthAndConnection[] = {HttpHeader::ContentLength, HttpHeader::Connection};

}  // namespace

// The two things the caller's fields decide, found in one walk as the
// request starts: whether it says its length, and whether it asks for the
// connection to be closed after it (the server may then close without
// saying so). Only fields the client itself adds come after this, and those
// are neither.
bool NetHttpClientRequest::readCallerFields() {
  MessageHeaders::FieldIterator found[2];
  headers_.findFields(LengthAndConnection, found, 2);
  if (found[1] != headers_.end() && found[1]->value.equalsIgnoreCase("close")) closeAfter_ = true;
  return found[0] != headers_.end();
}

NetHttpClientRequest::NetHttpClientRequest(std::shared_ptr<Reactor> reactor,
                                           std::shared_ptr<BufferChainAllocator> allocator,
                                           std::shared_ptr<NameResolver> resolver,
                                           std::shared_ptr<RequestWatchdog> watchdog, std::weak_ptr<RequestShelf> shelf)
    : reactor_(std::move(reactor)),
      allocator_(std::move(allocator)),
      watchdog_(std::move(watchdog)),
      shelf_(std::move(shelf)),
      timeout_(NetHttpClient::RequestTimeout),
      acquirer_(*this, reinterpret_cast<uintptr_t>(this), std::move(resolver)),
      sender_(reinterpret_cast<uintptr_t>(this), allocator_),
      receiver_(*this, reinterpret_cast<uintptr_t>(this), allocator_) {}

NetHttpClientRequest::~NetHttpClientRequest() = default;

void NetHttpClientRequest::open(std::shared_ptr<HttpConnectionPool> pool, const std::string& method,
                                const std::string& scheme, const std::string& hostValue,
                                const std::string& connectHost, const std::string& path) {
  const StringSection target = path.empty() ? StringSection("/") : StringSection(path);
  headers_.assignRequest(method, target);
  if (!headers_.isValid()) throw std::invalid_argument("Request line too long");
  headers_.addField(HttpHeader::Host, hostValue);
  pool_ = std::move(pool);
  method_ = method;
  scheme_ = scheme;
  connectHost_ = connectHost;
  errorHandler_.clear();
  connected_ = beginning_ = started_ = done_ = reused_ = closeAfter_ = headHeld_ = false;
  bodySink_.reset();
  sender_.reset();
  ++handles_;
}

std::string NetHttpClientRequest::text() const {
  const auto host = headers_.find(HttpHeader::Host);
  return method_ + " " + scheme_ + "://" + (host != headers_.end() ? host->value.str() : std::string()) +
         headers_.requestTarget().str();
}

// Where destruction used to end the exchange. Inside the handle's deleter:
// no new handle can be made here.
void NetHttpClientRequest::releaseHandle() {
  done_ = true;
  watchdog_->remove(this);
  acquirer_.stop();
  if (connection_) releaseConnection(!isConnectionUntouched());
  errorHandler_.clear();
  bodySink_.reset();
  sender_.reset();
  // Lets go of the response handle it holds, which may be the last.
  receiver_.close();
  if (--handles_ == 0) shelve();
}

std::shared_ptr<NetHttpClientResponse> NetHttpClientRequest::shareResponse(NetHttpClientResponse& response) {
  ++handles_;
  return std::shared_ptr<NetHttpClientResponse>(&response, ResponseRelease{this},
                                                HandlerAllocator<NetHttpClientResponse>());
}

void NetHttpClientRequest::releaseResponse() {
  if (--handles_ == 0) shelve();
}

void NetHttpClientRequest::shelve() {
  if (std::shared_ptr<RequestShelf> shelf = shelf_.lock()) {
    shelf->put(this);
  } else {
    delete this;
  }
}

void NetHttpClientRequest::begin() {
  lastActivity_ = reactor_->steadyNow();
  progressed_ = false;
  watchdog_->add(shared_from_this());
  // The parts' own callbacks hold references that share the request's life.
  receiver_.open(method_, receiverAnchor_.ref());
  beginning_ = true;
  acquirer_.start(pool_, connectHost_, scheme_);
  beginning_ = false;
}

void NetHttpClientRequest::onAcquireFailed(HttpClientError error) {
  // Failures reach the caller later, once it has had its chance to listen.
  if (beginning_) {
    failLater(error);
    return;
  }
  fail(error);
}

void NetHttpClientRequest::onAcquired(const std::shared_ptr<HttpConnection>& connection, bool reused) {
  connection_ = connection;
  reused_ = reused;
  onConnected();
}

void NetHttpClientRequest::onConnected() {
  connected_ = true;
  connection_->setUser(this);
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
  if (!readCallerFields() && length > 0) {
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
  const bool chunked = !readCallerFields();
  if (chunked) headers_.addField(HttpHeader::TransferEncoding, "chunked");
  const LifetimeRef<NetHttpClientRequest> self = anchor_.ref();
  bodySink_.setReadyHandler([self]() {
    if (auto request = self.lock()) request->pumpBody();
  });
  if (!sender_.setStreaming(headers_, chunked)) {
    failLater(HttpClientError::OutOfMemory);
    return;
  }
  startSending();
}

void NetHttpClientRequest::startSending() {
  if (!started_ || !connected_ || done_ || !sender_.hasHead() || holdHead()) return;
  QLOG(Log, log::Debug, "0x%x: Starting request: '%s %s' with %u bytes of data", id(), method_,
       headers_.requestTarget(), sender_.bodyBytes());
  // Kept for retryOnNewConnection(): only a reused connection can have been
  // closed under us, and only a repeatable request can be sent again.
  const StringSection method(method_);
  const bool repeatable = method == StringSection("GET") || method == StringSection("HEAD");
  const BufferChainPtr chain = sender_.takeHead(reused_ && repeatable, &bodySink_);
  if (!chain) {
    failLater(HttpClientError::OutOfMemory);
    return;
  }
  const LifetimeRef<NetHttpClientRequest> self = anchor_.ref();
  connection_->send(chain, [self, attempt = sender_.attempt()](int error, std::size_t bytes) {
    if (auto request = self.lock()) request->onSent(error, bytes, false, attempt);
  });
}

// A streamed body's first piece, and often its end, is mostly put in the
// same turn of the loop as the start: a reply made of a response that came
// in one read. Held to the end of that turn, the head leaves with them in
// one write, where going at once it went alone and the rest waited for its
// completion.
bool NetHttpClientRequest::holdHead() {
  if (headHeld_ || !sender_.isStreaming() || bodySink_.endArrived()) return false;
  headHeld_ = true;
  const LifetimeRef<NetHttpClientRequest> self = anchor_.ref();
  reactor_->postSelfGuarded([self, attempt = sender_.attempt()]() {
    auto request = self.lock();
    if (request && attempt == request->sender_.attempt()) request->startSending();
  });
  return true;
}

void NetHttpClientRequest::pumpBody() {
  if (done_) return;
  // Nothing more can come: no need to wait for the turn's end.
  if (sender_.hasHead()) {
    if (bodySink_.endArrived()) startSending();
    return;
  }
  BufferChain chain;
  switch (sender_.nextPiece(bodySink_, chain)) {
    case RequestSender::Piece::None:
      return;
    case RequestSender::Piece::OutOfMemory:
      // The pump may run inside the producer's put(): report it later.
      failLater(HttpClientError::OutOfMemory);
      return;
    case RequestSender::Piece::Ready:
      break;
  }
  const LifetimeRef<NetHttpClientRequest> self = anchor_.ref();
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
  acquirer_.again();
  return true;
}

void NetHttpClientRequest::onConnectionData(int error, BufferChain& data) {
  if (done_) return;
  // The handlers may drop the caller's last reference.
  std::shared_ptr<NetHttpClientRequest> hold = shared_from_this();
  if ((error || data.empty()) && receiver_.receivedBytes() == 0 && retryOnNewConnection()) return;
  if (error) {
    QLOG(Log, log::Notice, "0x%x: Receive error: %d", id(), error);
    fail(HttpClientError::ReceiveFailed);
    return;
  }
  if (data.empty()) {
    receiver_.end();
    return;
  }
  touch();
  QLOG(Log, log::Spam, "0x%x: Received %u bytes", id(), data.size());
  // The server has answered: nothing goes again.
  sender_.dropResend();
  receiver_.feed(data);
}

void NetHttpClientRequest::receiveMore() {
  touch();
  if (connection_) connection_->receive();
}

// Time spent waiting for a slow consumer does not count: only the network
// (and the request's own body producer) can make a request time out.
void NetHttpClientRequest::checkTimeout() {
  if (done_) return;
  const SteadyTime now = reactor_->steadyNow();
  if (std::exchange(progressed_, false) || receiver_.isPaused()) lastActivity_ = now;
  if (now < lastActivity_ + timeout_) return;
  QLOG(Log, log::Notice, "Request timed out: %s", text());
  fail(HttpClientError::TimedOut);
}

void NetHttpClientRequest::complete() {
  // A response that ended before the request body was sent leaves the
  // connection in the middle of a request.
  releaseConnection(closeAfter_ || receiver_.closesConnection() || !sender_.isFinished());
  finish(boost::system::error_code());
}

void NetHttpClientRequest::fail(HttpClientError error) {
  if (done_) return;
  acquirer_.stop();
  releaseConnection(true);
  finish(make_error_code(error));
}

void NetHttpClientRequest::failLater(HttpClientError error) {
  const LifetimeRef<NetHttpClientRequest> self = anchor_.ref();
  // The reference guards the task: the failure goes with the request.
  reactor_->postSelfGuarded([self, error]() {
    if (auto request = self.lock()) request->fail(error);
  });
}

void NetHttpClientRequest::finish(const boost::system::error_code& code) {
  done_ = true;
  acquirer_.stop();
  receiver_.stop();
  watchdog_->remove(this);
  bodySink_.setReadyHandler(Delegate<void()>());
  ErrorHandler handler = std::move(errorHandler_);
  errorHandler_.clear();
  if (handler) handler(code);
}

void NetHttpClientRequest::releaseConnection(bool close) {
  if (!connection_) return;
  std::shared_ptr<HttpConnection> connection = std::move(connection_);
  connection_.reset();
  connected_ = false;
  connection->setUser(nullptr);
  if (close) connection->close();
  pool_->releaseConnection(connection, close);
}

void NetHttpClientRequest::cancel() {
  if (done_) return;
  done_ = true;
  watchdog_->remove(this);
  // Expire the pool's hold on this request and the pending timer.
  acquirer_.withdraw();
  receiver_.stop();
  errorHandler_.clear();
  bodySink_.setReadyHandler(Delegate<void()>());
  releaseConnection(!isConnectionUntouched());
}

}  // namespace quorvel
