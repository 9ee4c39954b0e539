#include "tools/devrelay/outside_connection.h"

#include <sys/socket.h>

#include <cerrno>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>

#include "core/log.h"
#include "tools/devrelay/http_text.h"
#include "tools/devrelay/listener.h"

namespace quorvel {
namespace devrelay {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;
using asio::ip::tcp;

namespace {

const log::Log Log("devrelay");

constexpr std::size_t BodyPieceSize = 64 * 1024;
constexpr std::size_t MaxHeadSize = 64 * 1024;
// Bytes of an unread request body swallowed before closing, so that the
// client sees our answer rather than a reset.
constexpr std::size_t MaxDrainBytes = 4 * 1024 * 1024;

}  // namespace

OutsideConnection::OutsideConnection(tcp::socket socket, Relay& relay)
    : stream_(std::move(socket)),
      relay_(relay),
      settings_(relay.settings()),
      peer_(peerText(stream_.socket())),
      answerTimer_(stream_.get_executor()) {}

void OutsideConnection::start() {
  QLOG(Log, log::Debug, "Outside client connected from %s", peer_);
  readHead();
}

bool OutsideConnection::isCurrent(const Exchange& exchange) const { return exchange_.get() == &exchange; }

bool OutsideConnection::requestKeepAlive() const { return parser_ && parser_->get().keep_alive(); }

void OutsideConnection::readHead() {
  if (closed_) return;
  parser_.emplace();
  parser_->header_limit(MaxHeadSize);
  parser_->body_limit(NoBodyLimit);
  stream_.expires_after(toDuration(settings_.idleTimeout));
  readPending_ = true;
  http::async_read_header(stream_, buffer_, *parser_, [self = shared_from_this()](error_code ec, std::size_t) {
    self->readPending_ = false;
    self->onHead(ec);
  });
}

void OutsideConnection::onHead(error_code ec) {
  if (ec) {
    if (ec == http::error::end_of_stream || ec == beast::error::timeout) {
      QLOG(Log, log::Debug, "Outside client %s disconnected", peer_);
    } else {
      QLOG(Log, log::Info, "Outside client %s sent no valid request head: %s", peer_, ec.message());
    }
    close();
    return;
  }
  const auto& request = parser_->get();
  const std::string hostField(request[http::field::host]);
  const std::string key = deviceKeyOfHost(hostOfAuthority(hostField));
  const std::string method(request.method_string());
  const std::string target(request.target());
  bodyRead_ = parser_->is_done();
  bodyBytes_ = 0;
  replyWritten_ = false;
  continueSent_ = false;
  headRequest_ = request.method() == http::verb::head;

  if (key.empty() || !relay_.hasDevice(key)) {
    QLOG(Log, log::Warning, "Outside request %s %s from %s for host \"%s\": no device registered as \"%s\", answering 502",
         method, target, peer_, hostField, key);
    answer(502, "No device is registered as \"" + key + "\" at this relay.\n", bodyRead_ && requestKeepAlive());
    return;
  }

  auto exchange = std::make_shared<Exchange>();
  exchange->id = relay_.newExchangeId();
  exchange->key = key;
  exchange->method = method;
  exchange->target = target;
  exchange->headRequest = headRequest_;
  exchange->hasBody = !bodyRead_;
  exchange->chunked = parser_->chunked();
  exchange->contentLength = parser_->content_length().value_or(0);
  expectContinue_ = false;
  std::string& head = exchange->head;
  head = method + " " + target + (request.version() == 10 ? " HTTP/1.0\r\n" : " HTTP/1.1\r\n");
  for (const auto& field : request) {
    // The relay answers the expectation itself, once the device takes the request.
    if (field.name() == http::field::expect && equalsIgnoringCase(std::string(field.value()), "100-continue")) {
      expectContinue_ = true;
      continue;
    }
    head.append(field.name_string().data(), field.name_string().size());
    head += ": ";
    head.append(field.value().data(), field.value().size());
    head += "\r\n";
  }
  head += "\r\n";
  exchange->outside = shared_from_this();
  exchange_ = exchange;

  QLOG(Log, log::Info, "Request %s from %s: %s %s for device %s", exchange->id, peer_, method, target, key);
  switch (relay_.submit(exchange)) {
    case Relay::Submitted::Accepted:
      break;
    case Relay::Submitted::NoDevice:
      finishExchange();
      answer(502, "No device is registered as \"" + key + "\" at this relay.\n", bodyRead_ && requestKeepAlive());
      return;
    case Relay::Submitted::QueueFull:
      QLOG(Log, log::Warning, "Request %s: %u requests already queued for device %s, answering 503", exchange->id,
           relay_.queued(key), key);
      finishExchange();
      answer(503, "Too many requests are waiting for device \"" + key + "\".\n", bodyRead_ && requestKeepAlive());
      return;
  }
  // The submit may already have handed it to a waiting relay GET.
  if (exchange->state == Exchange::State::Queued) {
    QLOG(Log, log::Info, "Request %s queued for device %s (%u waiting)", exchange->id, key, relay_.queued(key));
    startAnswerTimer();
    watchClient(exchange);
  }
}

void OutsideConnection::answer(unsigned status, const std::string& text, bool keepAlive) {
  pending_ = textResponse(status, reasonPhrase(status), text, keepAlive, headRequest_);
  stream_.expires_after(toDuration(settings_.idleTimeout));
  asio::async_write(stream_, asio::buffer(pending_),
                    [self = shared_from_this(), keepAlive](error_code ec, std::size_t) {
                      if (ec || !keepAlive) {
                        self->close();
                      } else {
                        self->readHead();
                      }
                    });
}

void OutsideConnection::startAnswerTimer() {
  answerTimer_.expires_after(toDuration(settings_.answerTimeout));
  answerTimer_.async_wait([self = shared_from_this(), exchange = exchange_](error_code ec) {
    if (!ec) self->onAnswerTimeout(exchange);
  });
}

void OutsideConnection::onAnswerTimeout(const std::shared_ptr<Exchange>& exchange) {
  if (exchange != exchange_) return;
  const bool queued = exchange->state == Exchange::State::Queued;
  if (!queued && exchange->state != Exchange::State::AwaitingReply) return;
  QLOG(Log, log::Warning, "Request %s: device %s did not %s within %.1f s, answering 504", exchange->id,
       exchange->key, queued ? "fetch it" : "answer", settings_.answerTimeout.count());
  finishExchange();
  answer(504, "Device \"" + exchange->key + "\" did not answer in time.\n", bodyRead_ && requestKeepAlive());
}

// While its request waits in the queue the client may give up; without this
// the device would later get a request nobody waits for.
void OutsideConnection::watchClient(const std::shared_ptr<Exchange>& exchange) {
  stream_.socket().async_wait(tcp::socket::wait_read, [self = shared_from_this(), exchange](error_code ec) {
    if (ec || exchange != self->exchange_ || exchange->state != Exchange::State::Queued) return;
    char byte;
    const ssize_t n = ::recv(self->stream_.socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    // Readable with data: body bytes or a pipelined request, so it is still there.
    if (n > 0 || (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))) return;
    QLOG(Log, log::Info, "Request %s: outside client %s went away while it was queued", exchange->id, self->peer_);
    self->finishExchange();
    self->close();
  });
}

bool OutsideConnection::beginDelivery(Exchange& exchange) {
  if (!isCurrent(exchange) || exchange.state != Exchange::State::Queued) return false;
  answerTimer_.cancel();
  error_code ec;
  stream_.socket().cancel(ec);  // the queue watch
  exchange.state = Exchange::State::Delivering;
  if (expectContinue_ && !bodyRead_ && !continueSent_) {
    continueSent_ = true;
    // 25 bytes into an idle socket: written at once, and ordered before any
    // answer the device may post while the body is still on its way.
    static const char interim[] = "HTTP/1.1 100 Continue\r\n\r\n";
    asio::write(stream_.socket(), asio::buffer(interim, sizeof interim - 1), ec);
  }
  return true;
}

void OutsideConnection::undoDelivery(const std::shared_ptr<Exchange>& exchange) {
  if (!isCurrent(*exchange) || exchange->state != Exchange::State::Delivering) return;
  QLOG(Log, log::Info, "Request %s goes back to the head of the queue of device %s", exchange->id, exchange->key);
  exchange->state = Exchange::State::Queued;
  startAnswerTimer();
  watchClient(exchange);
  relay_.requeue(exchange);
}

void OutsideConnection::readBody(const Exchange& exchange, BodyHandler handler) {
  if (!isCurrent(exchange) || bodyRead_ || closed_) {
    asio::post(stream_.get_executor(), [handler] { handler(asio::error::operation_aborted, {}, false); });
    return;
  }
  if (bodyBuffer_.empty()) bodyBuffer_.resize(BodyPieceSize);
  auto& body = parser_->get().body();
  body.data = bodyBuffer_.data();
  body.size = bodyBuffer_.size();
  body.more = true;
  stream_.expires_after(toDuration(settings_.idleTimeout));
  readPending_ = true;
  http::async_read_some(
      stream_, buffer_, *parser_,
      [self = shared_from_this(), exchange = exchange_, handler](error_code ec, std::size_t) {
        self->readPending_ = false;
        if (ec == http::error::need_buffer) ec = {};
        if (!ec && exchange != self->exchange_) ec = asio::error::operation_aborted;
        if (ec) {
          QLOG(Log, log::Info, "Request %s: reading its body from %s failed after %u bytes: %s", exchange->id,
               self->peer_, self->bodyBytes_, ec.message());
          self->finishExchange();
          self->close();
          handler(ec, {}, false);
          return;
        }
        const std::size_t got = self->bodyBuffer_.size() - self->parser_->get().body().size;
        self->bodyRead_ = self->parser_->is_done();
        self->bodyBytes_ += got;
        if (got == 0 && !self->bodyRead_) {
          self->readBody(*exchange, handler);
          return;
        }
        handler({}, asio::const_buffer(self->bodyBuffer_.data(), got), self->bodyRead_);
      });
}

void OutsideConnection::bodyDelivered(const Exchange& exchange) {
  if (!isCurrent(exchange)) return;
  QLOG(Log, log::Debug, "Request %s: %u body bytes delivered to device %s", exchange.id, bodyBytes_, exchange.key);
  if (exchange.state == Exchange::State::Delivering) {
    exchange_->state = Exchange::State::AwaitingReply;
    startAnswerTimer();
  }
}

bool OutsideConnection::beginReply(const Exchange& exchange) {
  if (!isCurrent(exchange)) return false;
  if (exchange.state != Exchange::State::Delivering && exchange.state != Exchange::State::AwaitingReply) return false;
  answerTimer_.cancel();
  exchange_->state = Exchange::State::Replying;
  return true;
}

void OutsideConnection::writeReply(const Exchange& exchange, const std::vector<asio::const_buffer>& data,
                                   WriteHandler handler) {
  if (!isCurrent(exchange) || exchange.state != Exchange::State::Replying || closed_) {
    asio::post(stream_.get_executor(), [handler] { handler(asio::error::operation_aborted); });
    return;
  }
  replyWritten_ = true;
  stream_.expires_after(toDuration(settings_.idleTimeout));
  asio::async_write(stream_, data, [self = shared_from_this(), handler](error_code ec, std::size_t) {
    if (ec) {
      QLOG(Log, log::Info, "Outside client %s: writing the answer failed: %s", self->peer_, ec.message());
      self->finishExchange();
      self->close();
    }
    handler(ec);
  });
}

void OutsideConnection::endReply(const Exchange& exchange, bool keepAlive, std::uint64_t bytes) {
  if (!isCurrent(exchange)) return;
  const bool keep = keepAlive && bodyRead_ && requestKeepAlive();
  QLOG(Log, log::Info, "Request %s done: %u bytes of answer relayed to %s%s", exchange.id, bytes, peer_,
       keep ? "" : ", closing");
  finishExchange();
  if (keep) {
    readHead();
  } else {
    close();
  }
}

void OutsideConnection::failReply(const Exchange& exchange, unsigned status, const std::string& why) {
  if (!isCurrent(exchange)) return;
  if (!replyWritten_) {
    QLOG(Log, log::Warning, "Request %s: %s, answering %u", exchange.id, why, status);
    finishExchange();
    answer(status, why + "\n", bodyRead_ && requestKeepAlive());
  } else {
    QLOG(Log, log::Warning, "Request %s: %s after part of the answer went out, closing", exchange.id, why);
    finishExchange();
    close();
  }
}

void OutsideConnection::finishExchange() {
  answerTimer_.cancel();
  if (!exchange_) return;
  std::shared_ptr<Exchange> exchange = std::move(exchange_);
  exchange->state = Exchange::State::Finished;
  relay_.withdraw(*exchange);
  exchange->outside.reset();
}

void OutsideConnection::close() {
  if (closed_) return;
  closed_ = true;
  finishExchange();
  error_code ec;
  if (readPending_ || bodyRead_) {
    stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
    stream_.close();
    return;
  }
  // An unread request body: swallow some of it first, as closing with unread
  // data makes the kernel reset the connection and the client may lose the
  // answer it has not read yet.
  stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
  drain(0);
}

void OutsideConnection::drain(std::size_t drained) {
  if (bodyBuffer_.empty()) bodyBuffer_.resize(BodyPieceSize);
  stream_.expires_after(std::chrono::seconds(2));
  stream_.async_read_some(asio::buffer(bodyBuffer_),
                          [self = shared_from_this(), drained](error_code ec, std::size_t n) {
                            if (ec || drained + n > MaxDrainBytes) {
                              self->stream_.close();
                              return;
                            }
                            self->drain(drained + n);
                          });
}

}  // namespace devrelay
}  // namespace quorvel
