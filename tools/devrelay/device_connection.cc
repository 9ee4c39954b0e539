#include "tools/devrelay/device_connection.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>

#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>

#include "core/log.h"
#include "tools/devrelay/listener.h"
#include "tools/devrelay/outside_connection.h"

namespace quorvel {
namespace devrelay {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;
using asio::ip::tcp;

namespace {

const log::Log Log("devrelay");

constexpr std::size_t PieceSize = 64 * 1024;
constexpr std::size_t MaxHeadSize = 16 * 1024;
constexpr std::size_t MaxRegisterBody = 4096;
// Past this much of a body nobody wants, the connection is closed instead.
constexpr std::size_t MaxDiscard = 1024 * 1024;

bool isMessageHttp(std::string_view contentType) {
  const auto semicolon = contentType.find(';');
  std::string_view media = contentType.substr(0, semicolon);
  while (!media.empty() && (media.back() == ' ' || media.back() == '\t')) media.remove_suffix(1);
  while (!media.empty() && (media.front() == ' ' || media.front() == '\t')) media.remove_prefix(1);
  return equalsIgnoringCase(media, "message/http");
}

}  // namespace

template <class Stream>
DeviceConnection<Stream>::DeviceConnection(Stream stream, Relay& relay, std::uint16_t plainPort)
    : stream_(std::move(stream)),
      relay_(relay),
      settings_(relay.settings()),
      plainPort_(plainPort),
      peer_(peerText(socket())),
      pollTimer_(stream_.get_executor()) {}

template <class Stream>
void DeviceConnection<Stream>::expireAfter(Seconds seconds) {
  beast::get_lowest_layer(stream_).expires_after(toDuration(seconds));
}

template <class Stream>
void DeviceConnection<Stream>::start() {
  QLOG(Log, log::Debug, "Device connection from %s (%s)", peer_, IsTls ? "TLS" : "plain");
  if constexpr (IsTls) {
    expireAfter(settings_.idleTimeout);
    stream_.async_handshake(asio::ssl::stream_base::server, [self = this->shared_from_this()](error_code ec) {
      if (ec) {
        QLOG(Log, log::Info, "TLS handshake with device %s failed: %s", self->peer_, ec.message());
        self->close(false);
        return;
      }
      self->readRequest();
    });
  } else {
    readRequest();
  }
}

template <class Stream>
bool DeviceConnection<Stream>::requestKeepAlive() const {
  return parser_ && parser_->is_done() && parser_->get().keep_alive();
}

template <class Stream>
void DeviceConnection<Stream>::readRequest() {
  if (closed_) return;
  parser_.emplace();
  parser_->header_limit(MaxHeadSize);
  parser_->body_limit(NoBodyLimit);
  expireAfter(settings_.idleTimeout);
  readPending_ = true;
  http::async_read_header(stream_, buffer_, *parser_,
                          [self = this->shared_from_this()](error_code ec, std::size_t) {
                            self->readPending_ = false;
                            self->onRequest(ec);
                          });
}

template <class Stream>
void DeviceConnection<Stream>::onRequest(error_code ec) {
  if (ec) {
    if (ec == http::error::end_of_stream || ec == beast::error::timeout || ec == asio::ssl::error::stream_truncated) {
      QLOG(Log, log::Debug, "Device connection %s closed", peer_);
    } else {
      QLOG(Log, log::Info, "Device connection %s: no valid request head: %s", peer_, ec.message());
    }
    close(false);
    return;
  }
  const auto& request = parser_->get();
  const std::string target(request.target());
  const std::string path = target.substr(0, target.find('?'));
  QLOG(Log, log::Debug, "Device %s: %s %s", peer_, std::string(request.method_string()), target);

  const auto marker = path.rfind("/rhttp/");
  if (marker == std::string::npos) {
    discardThenRespond(404, "Not a relay resource: " + path + "\n");
    return;
  }
  const std::string prefix = path.substr(0, marker + 1);
  const std::string rest = path.substr(marker + 7);
  const http::verb method = request.method();
  if (rest == "register") {
    if (method != http::verb::post) return discardThenRespond(405, "Register with POST\n");
    handleRegister(prefix);
  } else if (rest.compare(0, 6, "relay/") == 0) {
    if (method != http::verb::get) return discardThenRespond(405, "Relay requests are GETs\n");
    handleRelay(prefix, rest.substr(6));
  } else if (rest.compare(0, 6, "reply/") == 0) {
    if (method != http::verb::post) return discardThenRespond(405, "Replies are POSTs\n");
    handleReply(rest.substr(6));
  } else {
    discardThenRespond(404, "Not a relay resource: " + path + "\n");
  }
}

template <class Stream>
void DeviceConnection<Stream>::handleRegister(const std::string& prefix) {
  pieceBuffer_.resize(std::max(pieceBuffer_.size(), MaxRegisterBody));
  auto& body = parser_->get().body();
  body.data = pieceBuffer_.data();
  body.size = MaxRegisterBody;
  body.more = true;
  expireAfter(settings_.idleTimeout);
  readPending_ = true;
  http::async_read(stream_, buffer_, *parser_, [self = this->shared_from_this(), prefix](error_code ec, std::size_t) {
    self->readPending_ = false;
    if (ec == http::error::need_buffer) {
      QLOG(Log, log::Warning, "Registration from %s has a body over %u bytes, answering 413", self->peer_,
           MaxRegisterBody);
      self->respond(413, {}, "The registration body is too large.\n", false);
      return;
    }
    if (ec) {
      QLOG(Log, log::Info, "Registration from %s broke off: %s", self->peer_, ec.message());
      self->close(false);
      return;
    }
    const std::string text(self->pieceBuffer_.data(), MaxRegisterBody - self->parser_->get().body().size);
    std::string key;
    if (text.compare(0, 4, "drk=") == 0) key = text.substr(4, text.find('&') == std::string::npos ? std::string::npos
                                                                                                  : text.find('&') - 4);
    if (!isValidKey(key)) {
      QLOG(Log, log::Warning, "Registration from %s with body \"%s\": not \"drk=KEY\" with a key of letters, digits, "
           "\"-\" and \"_\", answering 400", self->peer_, text.substr(0, 100));
      self->respond(400, {}, "Expected the body \"drk=KEY\" (KEY: 1 to 63 letters, digits, \"-\", \"_\").\n",
                    self->requestKeepAlive());
      return;
    }
    const std::string host = hostOfAuthority(std::string(self->parser_->get()[http::field::host]));
    if (deviceKeyOfHost(host) != lowerCase(key)) {
      QLOG(Log, log::Warning, "Device %s registers through host \"%s\", whose first label is not its key", key, host);
    }
    key = lowerCase(key);
    const std::uint64_t session = self->relay_.registerDevice(key);
    const std::string relayPath = prefix + "rhttp/relay/" + key + "/" + std::to_string(session);
    QLOG(Log, log::Notice, "Device %s registered from %s (%s), session %u, relay path %s", key, self->peer_,
         IsTls ? "TLS" : "plain", session, relayPath);
    self->respond(201, {{"Link", linkValue(relayPath, "first")}}, "", self->requestKeepAlive());
  });
}

template <class Stream>
std::string DeviceConnection<Stream>::nextLink() const {
  return linkValue(relayPath_, "next");
}

template <class Stream>
void DeviceConnection<Stream>::handleRelay(const std::string& prefix, const std::string& rest) {
  const auto slash = rest.find('/');
  const std::string key = lowerCase(rest.substr(0, slash));
  const std::string sessionText = slash == std::string::npos ? "" : rest.substr(slash + 1);
  char* end = nullptr;
  const unsigned long long session = std::strtoull(sessionText.c_str(), &end, 10);
  if (!isValidKey(key) || sessionText.empty() || *end != '\0') {
    return discardThenRespond(404, "Not a relay path; register first\n");
  }
  if (!parser_->is_done()) return discardThenRespond(400, "A relay GET has no body\n");
  key_ = key;
  session_ = session;
  relayPath_ = prefix + "rhttp/relay/" + key + "/" + sessionText;
  keepAlive_ = requestKeepAlive();
  std::string host = settings_.replyHost;
  if (host.empty()) host = hostOfAuthority(std::string(parser_->get()[http::field::host]));
  if (host.empty()) {
    error_code ec;
    host = socket().local_endpoint(ec).address().to_string();
  }
  replyBase_ = "http://" + authorityHost(host) + ":" + std::to_string(plainPort_) + prefix + "rhttp/reply/";

  waiting_ = true;
  // May deliver at once, before it returns.
  if (!relay_.poll(key_, session_, this->shared_from_this())) {
    waiting_ = false;
    QLOG(Log, log::Info, "Relay GET from %s for %s: unknown or superseded session, answering 404", peer_, relayPath_);
    respond(404, {}, "Unknown or superseded relay session; register again.\n", keepAlive_);
    return;
  }
  if (!waiting_) return;
  QLOG(Log, log::Debug, "Device %s polling from %s", key_, peer_);
  pollTimer_.expires_after(toDuration(settings_.pollTimeout));
  pollTimer_.async_wait([self = this->shared_from_this()](error_code ec) {
    if (!ec) self->onPollTimeout();
  });
  watchDevice();
}

// A device that goes away (killed, unplugged) must not be handed requests on
// its dead connection. A readable socket with nothing to read is its end;
// readable with data is left alone.
template <class Stream>
void DeviceConnection<Stream>::watchDevice() {
  socket().async_wait(tcp::socket::wait_read, [self = this->shared_from_this()](error_code ec) {
    if (ec || !self->waiting_) return;
    char byte;
    const ssize_t n = ::recv(self->socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0 || (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))) return;
    QLOG(Log, log::Info, "Device %s closed its waiting relay GET from %s", self->key_, self->peer_);
    self->stopWaiting();
    self->relay_.cancelPoll(self->key_, self.get());
    self->close(false);
  });
}

template <class Stream>
void DeviceConnection<Stream>::stopWaiting() {
  waiting_ = false;
  pollTimer_.cancel();
  error_code ec;
  socket().cancel(ec);  // the watch
}

template <class Stream>
void DeviceConnection<Stream>::onPollTimeout() {
  if (!waiting_) return;
  stopWaiting();
  relay_.cancelPoll(key_, this);
  QLOG(Log, log::Debug, "Nothing for device %s within %.1f s, answering 204", key_, settings_.pollTimeout.count());
  respond(204, {{"Link", nextLink()}}, "", keepAlive_);
}

template <class Stream>
void DeviceConnection<Stream>::dismiss() {
  if (!waiting_) return;
  stopWaiting();
  QLOG(Log, log::Info, "Device %s registered again; its relay GET from %s of the earlier session gets 404", key_, peer_);
  respond(404, {}, "This relay session was superseded by a new registration.\n", keepAlive_);
}

template <class Stream>
void DeviceConnection<Stream>::deliver(std::shared_ptr<Exchange> exchange) {
  stopWaiting();
  std::shared_ptr<OutsideConnection> outside = exchange->outside;
  if (!outside || !outside->beginDelivery(*exchange)) {
    respond(204, {{"Link", nextLink()}}, "", keepAlive_);
    return;
  }
  exchange_ = exchange;
  Fields fields{{"Content-Type", "message/http"},
                {"Link", nextLink()},
                {"Link", linkValue(replyBase_ + exchange->id, "reply")}};
  const std::string& inner = exchange->head;
  std::string first = inner;
  if (!exchange->hasBody) {
    fields.emplace_back("Content-Length", std::to_string(inner.size()));
  } else if (!exchange->chunked) {
    fields.emplace_back("Content-Length", std::to_string(inner.size() + exchange->contentLength));
  } else {
    // Length unknown: both the relayed body and this response are chunked.
    fields.emplace_back("Transfer-Encoding", "chunked");
    first = chunkSizeLine(inner.size()) + inner + "\r\n";
  }
  if (!keepAlive_) fields.emplace_back("Connection", "close");
  out_ = responseHead(200, "OK", fields) + first;
  QLOG(Log, log::Info, "Request %s handed to device %s at %s", exchange->id, key_, peer_);
  expireAfter(settings_.idleTimeout);
  asio::async_write(stream_, asio::buffer(out_), [self = this->shared_from_this(), exchange](error_code ec, std::size_t) {
    if (ec) {
      QLOG(Log, log::Info, "Request %s: the relay GET connection of device %s failed: %s", exchange->id, self->key_,
           ec.message());
      if (exchange->outside) exchange->outside->undoDelivery(exchange);
      self->exchange_.reset();
      self->close(false);
      return;
    }
    if (!exchange->hasBody) {
      if (exchange->outside) exchange->outside->bodyDelivered(*exchange);
      self->finishPoll();
    } else {
      self->pumpRequestBody();
    }
  });
}

template <class Stream>
void DeviceConnection<Stream>::pumpRequestBody() {
  std::shared_ptr<Exchange> exchange = exchange_;
  std::shared_ptr<OutsideConnection> outside = exchange->outside;
  if (!outside) {
    close(false);
    return;
  }
  outside->readBody(*exchange, [self = this->shared_from_this(), exchange](error_code ec, asio::const_buffer data,
                                                                           bool end) {
    if (ec) {
      // The outside side has ended the exchange; this response cannot be completed.
      self->exchange_.reset();
      self->close(false);
      return;
    }
    std::vector<asio::const_buffer> pieces;
    if (exchange->chunked) {
      std::string innerBefore = data.size() > 0 ? chunkSizeLine(data.size()) : "";
      std::string innerAfter = data.size() > 0 ? "\r\n" : "";
      if (end) innerAfter += "0\r\n\r\n";
      const std::size_t innerSize = innerBefore.size() + data.size() + innerAfter.size();
      self->before_ = chunkSizeLine(innerSize) + innerBefore;
      self->after_ = innerAfter + "\r\n";
      if (end) self->after_ += "0\r\n\r\n";
      pieces = {asio::buffer(self->before_), data, asio::buffer(self->after_)};
    } else {
      pieces = {data};
    }
    self->expireAfter(self->settings_.idleTimeout);
    asio::async_write(self->stream_, pieces, [self, exchange, end](error_code ec, std::size_t) {
      if (ec) {
        QLOG(Log, log::Info, "Request %s: sending its body to device %s failed: %s", exchange->id, self->key_,
             ec.message());
        if (exchange->outside) {
          exchange->outside->failReply(*exchange, 502, "The device's relay connection broke while the request was sent");
        }
        self->exchange_.reset();
        self->close(false);
        return;
      }
      if (!end) {
        self->pumpRequestBody();
        return;
      }
      if (exchange->outside) exchange->outside->bodyDelivered(*exchange);
      self->finishPoll();
    });
  });
}

template <class Stream>
void DeviceConnection<Stream>::finishPoll() {
  exchange_.reset();
  if (keepAlive_) {
    readRequest();
  } else {
    close();
  }
}

template <class Stream>
void DeviceConnection<Stream>::handleReply(const std::string& id) {
  keepAlive_ = parser_->get().keep_alive();
  std::shared_ptr<Exchange> exchange = relay_.findExchange(id);
  std::shared_ptr<OutsideConnection> outside = exchange ? exchange->outside : nullptr;
  if (!outside) {
    QLOG(Log, log::Warning, "Reply from %s for unknown or finished request %s, answering 404", peer_, id);
    return discardThenRespond(404, "No request " + id + " is waiting for an answer.\n");
  }
  if (!outside->beginReply(*exchange)) {
    QLOG(Log, log::Warning, "Reply from %s for request %s, which is already being answered, answering 410", peer_, id);
    return discardThenRespond(410, "Request " + id + " is already being answered.\n");
  }
  const std::string contentType(parser_->get()[http::field::content_type]);
  if (!isMessageHttp(contentType)) {
    outside->failReply(*exchange, 502, "The device answered with Content-Type \"" + contentType + "\"");
    return discardThenRespond(415, "A reply must have Content-Type: message/http\n");
  }
  exchange_ = exchange;
  framer_.emplace(exchange->headRequest);
  replyBytes_ = 0;
  headLogged_ = false;
  QLOG(Log, log::Debug, "Request %s: device %s posts its answer from %s", id, exchange->key, peer_);
  if (parser_->is_done()) {
    onReplyPiece(0, true);
  } else {
    pumpReply();
  }
}

template <class Stream>
void DeviceConnection<Stream>::readBodyPiece(std::function<void(error_code, std::size_t)> handler) {
  if (pieceBuffer_.size() < PieceSize) pieceBuffer_.resize(PieceSize);
  auto& body = parser_->get().body();
  body.data = pieceBuffer_.data();
  body.size = PieceSize;
  body.more = true;
  expireAfter(settings_.idleTimeout);
  readPending_ = true;
  http::async_read_some(stream_, buffer_, *parser_,
                        [self = this->shared_from_this(), handler](error_code ec, std::size_t) {
                          self->readPending_ = false;
                          if (ec == http::error::need_buffer) ec = {};
                          handler(ec, ec ? 0 : PieceSize - self->parser_->get().body().size);
                        });
}

template <class Stream>
void DeviceConnection<Stream>::pumpReply() {
  readBodyPiece([self = this->shared_from_this()](error_code ec, std::size_t size) {
    if (ec) {
      QLOG(Log, log::Info, "Answer to request %s from %s broke off after %u bytes: %s", self->exchange_->id, self->peer_,
           self->replyBytes_, ec.message());
      if (self->exchange_->outside) {
        self->exchange_->outside->failReply(*self->exchange_, 502, "The device's answer broke off");
      }
      self->exchange_.reset();
      self->close(false);
      return;
    }
    self->onReplyPiece(size, self->parser_->is_done());
  });
}

template <class Stream>
void DeviceConnection<Stream>::onReplyPiece(std::size_t size, bool end) {
  std::shared_ptr<Exchange> exchange = exchange_;
  std::shared_ptr<OutsideConnection> outside = exchange->outside;
  std::vector<asio::const_buffer> pieces;
  if (!framer_->feed(pieceBuffer_.data(), size, pieces)) {
    QLOG(Log, log::Warning, "Request %s: device %s answered with a malformed response: %s", exchange->id, exchange->key,
         framer_->error());
    if (outside) outside->failReply(*exchange, 502, "The device's answer is not a valid HTTP response");
    exchange_.reset();
    return discardThenRespond(400, "The body is not a valid HTTP response: " + framer_->error() + "\n");
  }
  if (!headLogged_ && framer_->headComplete()) {
    headLogged_ = true;
    QLOG(Log, log::Info, "Request %s answered by device %s: %u %s", exchange->id, exchange->key, framer_->status(),
         framer_->reason());
  }
  auto next = [self = this->shared_from_this(), end] {
    if (end) {
      self->finishReply();
    } else {
      self->pumpReply();
    }
  };
  if (pieces.empty()) return next();
  if (!outside) {
    exchange_.reset();
    return discardThenRespond(410, "The outside client is gone.\n");
  }
  for (const auto& piece : pieces) replyBytes_ += piece.size();
  outside->writeReply(*exchange, pieces, [self = this->shared_from_this(), next](error_code ec) {
    if (ec) {
      self->exchange_.reset();
      return self->discardThenRespond(410, "The outside client is gone.\n");
    }
    next();
  });
}

template <class Stream>
void DeviceConnection<Stream>::finishReply() {
  std::shared_ptr<Exchange> exchange = std::move(exchange_);
  std::shared_ptr<OutsideConnection> outside = exchange->outside;
  if (!framer_->finish()) {
    QLOG(Log, log::Warning, "Request %s: the answer of device %s is incomplete: %s", exchange->id, exchange->key,
         framer_->error());
    if (outside) outside->failReply(*exchange, 502, "The device's answer is incomplete");
    return respond(400, {}, "The body is not a complete HTTP response: " + framer_->error() + "\n", requestKeepAlive());
  }
  if (outside) outside->endReply(*exchange, framer_->keepAlive(), replyBytes_);
  respond(200, {}, "", requestKeepAlive());
}

template <class Stream>
void DeviceConnection<Stream>::discardThenRespond(unsigned status, const std::string& text, std::size_t discarded) {
  if (parser_->is_done()) return respond(status, {}, text, requestKeepAlive());
  if (discarded > MaxDiscard) return respond(status, {}, text, false);
  readBodyPiece([self = this->shared_from_this(), status, text, discarded](error_code ec, std::size_t size) {
    if (ec) {
      self->close(false);
      return;
    }
    self->discardThenRespond(status, text, discarded + size);
  });
}

template <class Stream>
void DeviceConnection<Stream>::respond(unsigned status, Fields fields, const std::string& text, bool keepAlive) {
  if (!text.empty()) fields.emplace_back("Content-Type", "text/plain");
  if (status != 204) fields.emplace_back("Content-Length", std::to_string(text.size()));
  if (!keepAlive) fields.emplace_back("Connection", "close");
  out_ = responseHead(status, reasonPhrase(status), fields) + text;
  expireAfter(settings_.idleTimeout);
  asio::async_write(stream_, asio::buffer(out_), [self = this->shared_from_this(), keepAlive](error_code ec, std::size_t) {
    if (ec || !keepAlive) {
      self->close(!ec);
    } else {
      self->readRequest();
    }
  });
}

template <class Stream>
void DeviceConnection<Stream>::close(bool graceful) {
  if (closed_) return;
  closed_ = true;
  waiting_ = false;
  pollTimer_.cancel();
  if constexpr (IsTls) {
    if (graceful && !readPending_) {
      // close_notify first, so the device's TLS layer sees a clean end.
      expireAfter(Seconds(2));
      stream_.async_shutdown([self = this->shared_from_this()](error_code) {
        error_code ignored;
        self->socket().close(ignored);
      });
      return;
    }
  }
  error_code ec;
  socket().shutdown(tcp::socket::shutdown_both, ec);
  socket().close(ec);
}

template class DeviceConnection<PlainStream>;
template class DeviceConnection<TlsStream>;

}  // namespace devrelay
}  // namespace quorvel
