#include "http/net_http_client.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/log.h"
#include "http/chunk_framing.h"
#include "http/http_names.h"
#include "http/response_head_reader.h"
#include "http/web_client.h"
#include "net/ssl_socket.h"

namespace quorvel {

const Duration NetHttpClient::RequestTimeout = Duration::seconds(60);

namespace {

const log::Log Log("httpclient");

// A response head that has not ended by then is refused.
constexpr std::size_t MaxHeadBytes = 65536;

// An IPv4 or IPv6 address literal with a numeric or "http"/"https" service.
bool resolveLiteral(const std::string& host, const std::string& service, NameResolver::Result& result) {
  in6_addr bytes;
  int family;
  if (inet_pton(AF_INET, host.c_str(), &bytes) == 1) {
    family = AF_INET;
  } else if (inet_pton(AF_INET6, host.c_str(), &bytes) == 1) {
    family = AF_INET6;
  } else {
    return false;
  }
  unsigned long port;
  if (service == "http") {
    port = 80;
  } else if (service == "https") {
    port = 443;
  } else {
    if (service.empty() || service.size() > 5 || service.find_first_not_of("0123456789") != std::string::npos) {
      return false;
    }
    port = std::stoul(service);
    if (port > 65535) return false;
  }
  result.host = host;
  result.service = service;
  result.addresses.assign(1, SocketAddress(family, host, static_cast<uint16_t>(port)));
  return true;
}

bool hasToken(const MessageHeaders& headers, const char* name, const char* value) {
  const auto field = headers.find(name);
  return field != headers.end() && field->value.equalsIgnoreCase(value);
}

// An HTTP/1.0 server closes after each response unless it says otherwise.
bool keepsConnection(const MessageHeaders& response) {
  return !response.version().equals(HttpVersion::V10) ||
         hasToken(response, HttpHeader::Connection, "keep-alive");
}

class NetHttpClientResponse : public WebClientResponse {
 public:
  explicit NetHttpClientResponse(const MessageHeaders& headers) : headers_(headers) {}
  const MessageHeaders& headers() const override { return headers_; }
  BodySource& body() override { return source_; }

 private:
  MessageHeaders headers_;
  BodySource source_;
};

}  // namespace

class NetHttpClientRequest;

// One timer for every request of a client, ticking while any is active: a
// timer per request would stay queued in the loop for its full minute after
// the request has gone, which at thousands of requests a second adds up.
class RequestWatchdog : public std::enable_shared_from_this<RequestWatchdog> {
 public:
  static constexpr Duration Tick = Duration::seconds(1);

  explicit RequestWatchdog(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {}
  void add(NetHttpClientRequest* request) {
    active_.insert(request);
    arm();
  }
  void remove(NetHttpClientRequest* request) { active_.erase(request); }

 private:
  void arm();
  void tick();

  std::shared_ptr<Reactor> reactor_;
  std::unordered_set<NetHttpClientRequest*> active_;
  bool armed_ = false;
  LifetimeToken token_ = makeLifetimeToken();
};

class NetHttpClientRequest : public WebClientRequest, public std::enable_shared_from_this<NetHttpClientRequest> {
 public:
  NetHttpClientRequest(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
                       std::shared_ptr<NameResolver> resolver, std::shared_ptr<HttpConnectionPool> pool,
                       std::shared_ptr<RequestWatchdog> watchdog,
                       const std::string& method, const std::string& scheme, const std::string& hostValue,
                       const std::string& connectHost, const std::string& path);
  ~NetHttpClientRequest() override;

  void begin();

  void setResponseHandler(const ResponseHandler& handler) override { responseHandler_ = handler; }
  void setErrorHandler(const ErrorHandler& handler) override { errorHandler_ = handler; }
  void setBodyDataHandler(const BodyDataHandler& handler) override { bodyDataHandler_ = handler; }
  MessageHeaders& headers() override { return headers_; }
  void setCloseConnection() override;
  void send(const void* data, std::size_t length) override;
  void startStreaming() override;
  // Made on first use, so a body may be connected before the request starts.
  std::weak_ptr<BodySink> bodySink() override {
    if (!bodySink_) bodySink_ = std::make_shared<BodySink>();
    return bodySink_;
  }
  bool isStarted() const override { return started_; }
  void cancel() override;

  // Ends the request when the network has made no progress for the time-out.
  void checkTimeout();

 private:
  uintptr_t id() const { return reinterpret_cast<uintptr_t>(this); }
  std::string text() const { return method_ + " " + scheme_ + "://" + hostValue_ + path_; }
  std::weak_ptr<NetHttpClientRequest> weak() { return shared_from_this(); }
  void touch() { lastActivity_ = reactor_->timeProvider()->now(); }

  void onResolved(const NameResolver::Result& result, bool found);
  void requestConnection();
  void onConnection(const std::shared_ptr<HttpConnection>& connection);
  void connectNext();
  void onConnect(int error);
  void onConnected();

  void startSending();
  void pumpBody();
  void onSent(int error, std::size_t bytes, bool body, unsigned attempt);
  bool retryOnNewConnection();

  void onReceive(int error, BufferChain& data);
  void onHead();
  void deliverBody();
  void onUnblocked();
  void endBody();

  void complete();
  void fail(HttpClientError error);
  void failLater(HttpClientError error);
  void finish(const boost::system::error_code& code);
  void releaseConnection(bool close);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  std::shared_ptr<NameResolver> resolver_;
  std::shared_ptr<HttpConnectionPool> pool_;
  std::shared_ptr<RequestWatchdog> watchdog_;
  const std::string method_, scheme_, hostValue_, connectHost_, path_;
  std::string host_, service_;
  MessageHeaders headers_;
  const Duration timeout_ = NetHttpClient::RequestTimeout;

  ResponseHandler responseHandler_;
  ErrorHandler errorHandler_;
  BodyDataHandler bodyDataHandler_;

  HttpDestination destination_;
  std::size_t addressIndex_ = 0;
  std::shared_ptr<HttpConnection> connection_;
  bool connected_ = false;

  bool started_ = false;
  bool done_ = false;
  // Outgoing: the whole request in one chain, or the head followed by the
  // body from the sink.
  BufferChainPtr whole_;
  // The whole request as sent on a reused connection, for one retry when the
  // server turns out to have closed that connection meanwhile.
  BufferChainPtr resend_;
  bool reused_ = false;
  bool retried_ = false;
  unsigned attempt_ = 0;  // send completions of earlier connections are stale
  std::shared_ptr<BodySink> bodySink_;
  bool streaming_ = false;
  bool chunked_ = false;
  ChunkFramer framer_;
  bool headSent_ = false;
  bool sending_ = false;
  bool sendFinished_ = false;
  std::size_t bodyBytes_ = 0;
  std::size_t sentBytes_ = 0;

  // Incoming.
  std::unique_ptr<ResponseHeadReader> reader_;
  std::unique_ptr<WebEncodingParser> parser_;
  std::shared_ptr<NetHttpClientResponse> response_;
  bool closeAfter_ = false;
  bool paused_ = false;

  Time lastActivity_;
  LifetimeToken token_ = makeLifetimeToken();
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
  watchdog_->add(this);
  QLOG(Log, log::Debug, "Resolving host %s", connectHost_);
  std::weak_ptr<NetHttpClientRequest> self = weak();
  // An address literal needs no trip to the resolver's thread.
  NameResolver::Result literal;
  if (resolveLiteral(host_, service_, literal)) {
    reactor_->post(token_, [self, literal]() {
      if (auto request = self.lock()) request->onResolved(literal, true);
    });
    return;
  }
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
      addressIndex_ = 0;
      connectNext();
      break;
    default:
      QLOG(Log, log::Warning, "Got connection in unexpected state %u for %s, %s",
           static_cast<unsigned>(connection->state()), connectHost_, destination_.addressText());
      fail(HttpClientError::ConnectFailed);
      break;
  }
}

void NetHttpClientRequest::connectNext() {
  const SocketAddress& address = destination_.addresses[addressIndex_];
  QLOG(Log, log::Debug, "0x%x: Connecting to %s...", id(), address.toString());
  std::weak_ptr<NetHttpClientRequest> self = weak();
  connection_->connect(address, [self](int error) {
    if (auto request = self.lock()) request->onConnect(error);
  });
}

void NetHttpClientRequest::onConnect(int error) {
  if (done_) return;
  touch();
  const SocketAddress& address = destination_.addresses[addressIndex_];
  QLOG(Log, error ? log::Notice : log::Debug, "0x%x: Connection to %s %s", id(), address.toString(),
       error ? "failed" : "succeeded");
  if (error) QLOG(Log, log::Notice, "0x%x: Connect error %d: %s", id(), error, socketErrorText(error));
  if (!error) {
    onConnected();
    return;
  }
  if (++addressIndex_ < destination_.addresses.size()) {
    connectNext();
    return;
  }
  fail(HttpClientError::ConnectFailed);
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
  bodyBytes_ = length;
  // Head and body go out in one write.
  BufferChain chain = allocator_->allocate(headers_.size() + length);
  if (chain.empty()) {
    QLOG(Log, log::Error, "0x%x: No buffers for a request of %u bytes", id(), headers_.size() + length);
    failLater(HttpClientError::OutOfMemory);
    return;
  }
  BufferChain::Iterator out = copyToChain(headers_.data(), headers_.data() + headers_.size(), chain.begin());
  const char* bytes = static_cast<const char*>(data);
  if (length > 0) copyToChain(bytes, bytes + length, out);
  whole_ = BufferChainPtr(chain);
  startSending();
}

void NetHttpClientRequest::startStreaming() {
  if (started_) throw BadCallError("Request already started");
  started_ = true;
  streaming_ = true;
  if (!headers_.has(HttpHeader::ContentLength)) {
    headers_.addField(HttpHeader::TransferEncoding, "chunked");
    chunked_ = true;
  }
  bodySink();
  std::weak_ptr<NetHttpClientRequest> self = weak();
  bodySink_->setReadyHandler([self]() {
    if (auto request = self.lock()) request->pumpBody();
  });
  BufferChain head = chainOf(*allocator_, headers_.data(), headers_.size());
  if (head.empty()) {
    QLOG(Log, log::Error, "0x%x: No buffers for a request head of %u bytes", id(), headers_.size());
    failLater(HttpClientError::OutOfMemory);
    return;
  }
  whole_ = BufferChainPtr(head);
  startSending();
}

void NetHttpClientRequest::startSending() {
  if (!started_ || !connected_ || headSent_ || done_ || !whole_) return;
  QLOG(Log, log::Debug, "0x%x: Starting request: '%s %s' with %u bytes of data", id(), method_, path_, bodyBytes_);
  // Asked for by the caller: the server may close without saying so.
  closeAfter_ = closeAfter_ || hasToken(headers_, HttpHeader::Connection, "close");
  headSent_ = true;
  sending_ = true;
  std::weak_ptr<NetHttpClientRequest> self = weak();
  BufferChainPtr chain = std::move(whole_);
  whole_.reset();
  // Kept for retryOnNewConnection(): only a reused connection can have been
  // closed under us, and only a whole, repeatable request can be sent again.
  if (reused_ && !retried_ && !streaming_ && (method_ == "GET" || method_ == "HEAD")) resend_ = chain;
  connection_->send(chain, [self, attempt = attempt_](int error, std::size_t bytes) {
    if (auto request = self.lock()) request->onSent(error, bytes, false, attempt);
  });
}

void NetHttpClientRequest::pumpBody() {
  if (!streaming_ || !headSent_ || sending_ || sendFinished_ || done_) return;
  BufferChain chain;
  if (bodySink_->hasItem()) {
    BufferChainPtr item = bodySink_->take();
    if (!item || item.chain().empty()) {
      // Nothing to frame; an empty chunk would end the body.
      pumpBody();
      return;
    }
    const std::size_t size = item.chain().size();
    chain = takeOrCopy(*allocator_, item);
    if (chunked_ && !chain.empty()) chain = framer_.frame(*allocator_, chain);
    if (chain.empty()) {
      QLOG(Log, log::Error, "0x%x: No buffers for %u bytes of request body", id(), size);
      // The pump may run inside the producer's put(): report it later.
      sendFinished_ = true;
      failLater(HttpClientError::OutOfMemory);
      return;
    }
    bodyBytes_ += size;
  } else if (bodySink_->isEnded()) {
    sendFinished_ = true;
    if (!chunked_) {
      QLOG(Log, log::Debug, "0x%x: Finished sending %u bytes", id(), sentBytes_);
      return;
    }
    chain = framer_.end(*allocator_);
    if (chain.empty()) {
      failLater(HttpClientError::OutOfMemory);
      return;
    }
    QLOG(Log, log::Debug, "0x%x: Sent chunked encoding end marker", id());
  } else {
    return;
  }
  sending_ = true;
  std::weak_ptr<NetHttpClientRequest> self = weak();
  connection_->send(BufferChainPtr(chain), [self, attempt = attempt_](int error, std::size_t bytes) {
    if (auto request = self.lock()) request->onSent(error, bytes, true, attempt);
  });
}

void NetHttpClientRequest::onSent(int error, std::size_t bytes, bool body, unsigned attempt) {
  if (attempt != attempt_) return;
  sending_ = false;
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
  sentBytes_ += bytes;
  QLOG(Log, log::Spam, "0x%x: Sent %u bytes", id(), bytes);
  if (!streaming_) {
    sendFinished_ = true;
    QLOG(Log, log::Debug, "0x%x: Finished sending %u bytes", id(), sentBytes_);
    return;
  }
  if (sendFinished_) {
    QLOG(Log, log::Debug, "0x%x: Finished sending %u bytes", id(), sentBytes_);
    return;
  }
  pumpBody();
}

// A kept connection may have been closed by the server just as it was taken
// from the pool: a race no caller can avoid, which would otherwise fail a
// request that never reached the server. A GET or HEAD that got no byte of
// answer on it goes once more on a new connection; those are safe to repeat,
// whereas the server may already have acted on any other method. Once only,
// so that a server that always closes is reported rather than looped on.
bool NetHttpClientRequest::retryOnNewConnection() {
  if (!resend_ || retried_ || done_) return false;
  QLOG(Log, log::Debug, "0x%x: Kept connection closed by the server, retrying on a new one", id());
  retried_ = true;
  ++attempt_;
  releaseConnection(true);
  whole_ = std::move(resend_);
  resend_.reset();
  headSent_ = sending_ = sendFinished_ = reused_ = false;
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
  resend_.reset();
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

void RequestWatchdog::arm() {
  if (armed_ || active_.empty()) return;
  armed_ = true;
  std::weak_ptr<RequestWatchdog> self = shared_from_this();
  reactor_->scheduleAfter(token_, Tick, [self]() {
    if (auto watchdog = self.lock()) watchdog->tick();
  });
}

void RequestWatchdog::tick() {
  armed_ = false;
  // A request that times out may take others with it.
  std::vector<std::weak_ptr<NetHttpClientRequest>> requests;
  requests.reserve(active_.size());
  for (NetHttpClientRequest* request : active_) requests.push_back(request->weak_from_this());
  for (const auto& weak : requests) {
    if (auto request = weak.lock()) request->checkTimeout();
  }
  arm();
}

void NetHttpClientRequest::complete() {
  // A response that ended before the request body was sent leaves the
  // connection in the middle of a request.
  releaseConnection(closeAfter_ || !sendFinished_);
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


NetHttpClient::NetHttpClient(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
                             std::shared_ptr<AsyncSocketFactory> plain, std::shared_ptr<AsyncSocketFactory> ssl,
                             std::shared_ptr<NameResolver> resolver, unsigned connectionLimit)
    : reactor_(std::move(reactor)),
      allocator_(std::move(allocator)),
      resolver_(std::move(resolver)),
      watchdog_(std::make_shared<RequestWatchdog>(reactor_)) {
  plainPool_ = std::make_shared<HttpConnectionPool>(reactor_, std::move(plain), allocator_, connectionLimit);
  if (ssl) sslPool_ = std::make_shared<HttpConnectionPool>(reactor_, std::move(ssl), allocator_, connectionLimit);
}

NetHttpClient::~NetHttpClient() = default;

std::shared_ptr<WebClientRequest> NetHttpClient::createRequest(const std::string& method, const std::string& scheme,
                                                               const std::string& hostValue,
                                                               const std::string& connectHost,
                                                               const std::string& path) {
  std::shared_ptr<HttpConnectionPool> pool = plainPool_;
  if (scheme == "https") {
    if (!sslPool_) throw std::runtime_error("HTTPS connections not supported");
    pool = sslPool_;
  }
  auto request = std::make_shared<NetHttpClientRequest>(reactor_, allocator_, resolver_, pool, watchdog_, method, scheme,
                                                        hostValue, connectHost, path);
  request->begin();
  return request;
}

void NetHttpClient::splitConnectHost(const std::string& connectHost, const std::string& defaultService,
                                     std::string& host, std::string& service) {
  service = defaultService;
  if (!connectHost.empty() && connectHost[0] == '[') {
    const std::size_t close = connectHost.find(']');
    if (close != std::string::npos) {
      host = connectHost.substr(1, close - 1);
      if (close + 1 < connectHost.size() && connectHost[close + 1] == ':' && close + 2 < connectHost.size()) {
        service = connectHost.substr(close + 2);
      }
      return;
    }
  }
  const std::size_t colon = connectHost.find(':');
  // Two colons or more: a bare IPv6 address, which has no port.
  if (colon != std::string::npos && connectHost.find(':', colon + 1) == std::string::npos) {
    host = connectHost.substr(0, colon);
    if (colon + 1 < connectHost.size()) service = connectHost.substr(colon + 1);
    return;
  }
  host = connectHost;
}

}  // namespace quorvel
