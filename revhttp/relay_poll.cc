#include "revhttp/relay_poll.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "core/log.h"
#include "http/http_names.h"
#include "revhttp/client_calls.h"
#include "http/url.h"
#include "revhttp/link_field.h"

namespace quorvel {
namespace {

const log::Log Log("revhttp");

}  // namespace

constexpr std::size_t RelayPoll::FreeListLimit;

RelayPoll::RelayPoll(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> pool,
                     std::shared_ptr<HttpClient> http)
    : reactor_(std::move(reactor)), pool_(std::move(pool)), http_(std::move(http)) {}

RelayPoll::~RelayPoll() {
  if (request_) request_->cancel();
  for (const std::shared_ptr<RelayExchange>& exchange : active_) exchange->cancel();
}

void RelayPoll::start(const std::string& relayUrl) {
  url_ = relayUrl;
  requestStep();
}

void RelayPoll::requestStep() {
  QLOG(Log, log::Debug, "Starting relay request to %s", url_);
  std::shared_ptr<WebClientRequest> request;
  try {
    // The relay names the same URL again and again: it is taken apart only
    // when it changes.
    if (partsUrl_ != url_) {
      parts_.set(url_);
      partsUrl_ = url_;
    }
    request = requestTo(*http_, "GET", parts_);
  } catch (const std::exception& error) {
    QLOG(Log, log::Notice, "GET request to %s failed: %s", url_, error.what());
    awaitedSerial_ = 0;
    fail();
    return;
  }
  // The last GET may be the one whose callback this is: it goes at the next
  // step, when it is surely off the stack.
  previousRequest_ = std::move(request_);
  request_ = request;
  const uint64_t serial = awaitedSerial_ = ++lastSerial_;
  const LifetimeRef<RelayPoll> self = anchor_.ref();
  request->setResponseHandler([self, serial](const std::shared_ptr<WebClientResponse>& response) {
    if (auto poll = self.lock()) poll->onResponse(serial, response);
  });
  request->setErrorHandler([self, serial](const boost::system::error_code& code) {
    if (auto poll = self.lock()) poll->onError(serial, code);
  });
  request->headers().addField(HttpHeader::Accept, "message/http");
  request->send(nullptr, 0);
}

void RelayPoll::onResponse(uint64_t serial, const std::shared_ptr<WebClientResponse>& response) {
  if (serial != awaitedSerial_) return;
  awaitedSerial_ = 0;
  const MessageHeaders& headers = response->headers();
  const uint32_t status = headers.statusCode();
  QLOG(Log, log::Debug, "Got relay response from %s: %s %u %s", url_, headers.version(), status, headers.reason());
  recycleFinished();

  if (status >= 400) {
    QLOG(Log, log::Notice, "Bad relay response %u %s from %s", status, headers.reason(), url_);
    discardBody(response);
    fail();
    return;
  }
  // The type and the first link in one walk.
  const StringSection wanted[] = {HttpHeader::ContentType, LinkField};
  MessageHeaders::FieldIterator found[2];
  headers.findFields(wanted, found, 2);
  if (status == 204) {
    discardBody(response);
  } else {
    const MessageHeaders::FieldIterator type = found[0];
    if (type == headers.end() || !type->value.equals("message/http")) {
      QLOG(Log, log::Notice, "Relay response has no or unsupported content type");
      discardBody(response);
      fail();
      return;
    }
  }
  // Both links in one walk; the reply link only for a relayed request.
  const StringSection relations[] = {"next", "reply"};
  StringSection links[2];
  findLinkReferences(headers, found[1], relations, links, status == 204 ? 1 : 2);
  if (status != 204) {
    std::shared_ptr<RelayExchange> exchange = obtainExchange();
    active_.push_back(exchange);
    exchange->begin(++lastUse_, url_, links[1], serial, request_, response, handler_);
  }

  if (!links[0].data()) {
    url_.clear();
    QLOG(Log, log::Notice, "Relay response has no Link field");
    fail();
    return;
  }
  follow(links[0]);
  requestStep();
}

void RelayPoll::follow(StringSection reference) {
  // Mostly the relay names the same link against the URL it gave last time.
  if (url_ == followedBase_ && reference == StringSection(followedReference_)) {
    url_ = followedUrl_;
    return;
  }
  followedBase_ = url_;
  followedReference_.assign(reference.data(), reference.size());
  Url::resolve(followedBase_, reference, followedUrl_);
  url_ = followedUrl_;
}

void RelayPoll::onError(uint64_t serial, const boost::system::error_code& code) {
  if (!code) return;
  if (serial == awaitedSerial_) {
    awaitedSerial_ = 0;
    QLOG(Log, log::Notice, "Relay request to %s failed with code %s", url_, code.value());
    fail();
    return;
  }
  // The head was handled; the body of a relayed request broke off.
  for (const std::shared_ptr<RelayExchange>& exchange : active_) {
    if (exchange->relaySerial() == serial) {
      exchange->onRelayError(code);
      return;
    }
  }
}

void RelayPoll::fail() {
  url_.clear();
  if (onFailed_) onFailed_();
}

std::shared_ptr<RelayExchange> RelayPoll::obtainExchange() {
  if (!free_.empty()) {
    std::shared_ptr<RelayExchange> exchange = std::move(free_.back());
    free_.pop_back();
    return exchange;
  }
  const std::weak_ptr<RelayPoll> self = weak_from_this();
  return std::make_shared<RelayExchange>(reactor_, pool_, http_, [self](RelayExchange& exchange) {
    if (std::shared_ptr<RelayPoll> poll = self.lock()) poll->onExchangeDone(exchange);
  });
}

void RelayPoll::recycleFinished() {
  for (std::shared_ptr<RelayExchange>& exchange : finished_) {
    exchange->reset();
    if (free_.size() < FreeListLimit) free_.push_back(std::move(exchange));
  }
  finished_.clear();
}

void RelayPoll::onExchangeDone(RelayExchange& exchange) {
  const auto found = std::find_if(active_.begin(), active_.end(),
                                  [&](const std::shared_ptr<RelayExchange>& e) { return e.get() == &exchange; });
  if (found == active_.end()) return;
  finished_.push_back(std::move(*found));
  active_.erase(found);
}

}  // namespace quorvel
