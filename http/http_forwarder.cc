#include "http/http_forwarder.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include <boost/system/error_code.hpp>

#include "core/lifetime_ref.h"
#include "core/log.h"

namespace quorvel {
namespace {

const log::Log Log("httpfwd");

const char* const UnableToRelay = "Unable to relay request";

}  // namespace

// One relayed exchange. The forwarder owns it and uses the object for one
// exchange after another; the callbacks it installs on the target request
// hold it only by a lifetime reference, with the number of their use, so once the forwarder
// lets go of a use no callback reaches it.
class HttpForwarder::PendingRequest : public std::enable_shared_from_this<PendingRequest> {
 public:
  explicit PendingRequest(HttpForwarder& owner) : owner_(&owner) {}

  // For the log lines: made only when one is written.
  std::string name() const {
    return "#" + std::to_string(serial_) + " " + (request_ ? request_->headers().requestTarget().str() : std::string());
  }
  uint64_t use() const { return use_; }

  void open(uint32_t serial, std::shared_ptr<WebRequest> request);
  void start();
  // The forwarder is going away: nothing may call back into it.
  void detach();
  // The use is over and cleaned up: what it held goes.
  void close();

 private:
  void copyFields(MessageHeaders& target) const;
  void startBody();
  void onResponse(const std::shared_ptr<WebClientResponse>& response);
  void onDone(const boost::system::error_code& code);
  void answerBadGateway();
  void finish(bool succeeded);

  HttpForwarder* owner_;
  uint32_t serial_ = 0;
  uint64_t use_ = 0;
  std::shared_ptr<WebRequest> request_;
  std::shared_ptr<WebClientRequest> target_;
  std::shared_ptr<WebClientResponse> targetResponse_;
  std::shared_ptr<WebResponse> response_;
  bool finished_ = false;
  LifetimeAnchor<PendingRequest> anchor_{this};
};

void HttpForwarder::PendingRequest::start() {
  const MessageHeaders& in = request_->headers();
  QLOG(Log, log::Debug, "%s %s %s", in.method(), in.requestTarget(), in.version());

  const MessageHeaders::FieldIterator host = in.find(HttpHeader::Host);
  const std::string hostValue = host != in.end() ? host->value.str() : owner_->targetHost_;
  try {
    target_ = owner_->client_->createRequest(in.method().str(), "http", hostValue, owner_->targetHost_,
                                             in.requestTarget().str());
  } catch (const std::exception& e) {
    // A target the client refuses outright is as unreachable as one that
    // does not answer.
    QLOG(Log, log::Debug, "%s: Could not create target request: %s", name(), e.what());
    answerBadGateway();
    finish(false);
    return;
  }
  copyFields(target_->headers());

  const LifetimeRef<PendingRequest> weak = anchor_.ref();
  target_->setResponseHandler([weak, use = use_](const std::shared_ptr<WebClientResponse>& response) {
    const auto self = weak.lock();
    if (self && self->use_ == use) self->onResponse(response);
  });
  target_->setErrorHandler([weak, use = use_](const boost::system::error_code& code) {
    const auto self = weak.lock();
    if (self && self->use_ == use) self->onDone(code);
  });
  // No body data handler: the response body is taken from the response's
  // source instead, so that a slow consumer holds the target back.

  // A body that is already complete may still have pieces waiting for the
  // handler, so the head's word counts as well.
  if (!request_->isBodyComplete() || in.hasBody()) {
    QLOG(Log, log::Debug, "%s: Starting request data", name());
    startBody();
  } else {
    QLOG(Log, log::Debug, "%s: Sending empty request", name());
    target_->send(nullptr, 0);
  }
}

void HttpForwarder::PendingRequest::copyFields(MessageHeaders& target) const {
  std::string forwardedFor;
  bool protoPresent = false;
  for (const MessageHeaders::Field& field : request_->headers()) {
    if (field.name.equalsIgnoreCase(HttpHeader::Host)) continue;
    // The client frames the target request's body itself.
    if (field.name.equalsIgnoreCase(HttpHeader::TransferEncoding)) continue;
    if (field.name.equalsIgnoreCase(HttpHeader::ForwardedFor)) {
      // Several fields are one list, as if they had been written as one.
      if (!forwardedFor.empty()) forwardedFor += ", ";
      forwardedFor.append(field.value.data(), field.value.size());
      continue;
    }
    if (field.name.equalsIgnoreCase(HttpHeader::ForwardedProto)) protoPresent = true;
    target.addField(field.name, field.value);
  }
  // Without the client's address the chain cannot be extended truthfully,
  // so the earlier hops are dropped as well.
  const std::string& address = request_->clientInfo().address;
  if (!address.empty()) {
    if (!forwardedFor.empty()) forwardedFor += ", ";
    forwardedFor += address;
    target.addField(HttpHeader::ForwardedFor, forwardedFor);
  }
  if (!protoPresent && !owner_->forwardedProtocol_.empty()) {
    target.addField(HttpHeader::ForwardedProto, owner_->forwardedProtocol_);
  }
}

void HttpForwarder::PendingRequest::startBody() {
  // Head first, so that body pieces the request already holds follow it.
  target_->startStreaming();
  if (finished_) return;  // the client gave up at once
  const std::weak_ptr<BodySink> sink = target_->bodySink();
  if (sink.expired()) {
    QLOG(Log, log::Debug, "%s: No sink for request data, cancelling request", name());
    answerBadGateway();
    finish(false);
    return;
  }
  request_->setBodyDataHandler(feedSink(sink));
}

void HttpForwarder::PendingRequest::onResponse(const std::shared_ptr<WebClientResponse>& response) {
  if (finished_) return;
  targetResponse_ = response;
  const MessageHeaders& head = response->headers();
  QLOG(Log, log::Debug, "%s: Response: %s %u %s", name(), head.version(), head.statusCode(), head.reason());

  if (request_->isActive()) response_ = request_->createResponse(head.statusCode(), head.reason());
  if (!response_) {
    QLOG(Log, log::Debug, "%s: Client request no longer active, cancelling", name());
    finish(false);
    return;
  }
  MessageHeaders& out = response_->headers();
  out.appendFields(head);

  // The target's request has the client's method, so the client's rule is the
  // one the response was read by.
  if (!response->hasBody()) {
    QLOG(Log, log::Debug, "%s: Sending empty response", name());
    response_->send(nullptr, 0);
    finish(true);
    return;
  }
  // Held across start(): the consumer could otherwise drop it in between.
  const std::shared_ptr<BodySink> sink = response_->bodySink().lock();
  if (!sink) {
    QLOG(Log, log::Debug, "%s: No sink for content, cancelling request", name());
    finish(false);
    return;
  }
  QLOG(Log, log::Debug, "%s: Starting response data", name());
  response_->start();
  response->body().connect(sink);
}

void HttpForwarder::PendingRequest::onDone(const boost::system::error_code& code) {
  if (!response_ && !finished_) {
    // Nothing has been answered yet, so the client can still be told.
    QLOG(Log, log::Debug, "Target request error %u: %s", code.value(), code.message());
    answerBadGateway();
    finish(false);
  } else if (!code) {
    QLOG(Log, log::Debug, "Response end with code %u: %s", code.value(), code.message());
    finish(true);
  } else {
    // The head has gone out: all that is left is to stop. The body is not
    // ended, so its receiver sees a failed transfer rather than a short one.
    QLOG(Log, log::Debug, "Request error %u: %s", code.value(), code.message());
    finish(false);
  }
}

void HttpForwarder::PendingRequest::answerBadGateway() {
  sendSimpleResponse(*request_, HttpStatus::BadGateway, UnableToRelay, "text/plain", false);
}

void HttpForwarder::PendingRequest::finish(bool succeeded) {
  if (finished_) {
    QLOG(Log, log::Debug, "Pending request already finished: %s", name());
    return;
  }
  QLOG(Log, log::Debug, "Finishing pending request %s", name());
  finished_ = true;
  // A failed exchange may still be running on the target's connection; the
  // client drops it rather than call back into a request that is over.
  if (!succeeded && target_) target_->cancel();
  if (owner_) owner_->scheduleCleanUp(this);
}

void HttpForwarder::PendingRequest::open(uint32_t serial, std::shared_ptr<WebRequest> request) {
  ++use_;
  serial_ = serial;
  request_ = std::move(request);
  finished_ = false;
}

void HttpForwarder::PendingRequest::close() {
  ++use_;
  request_.reset();
  target_.reset();
  targetResponse_.reset();
  response_.reset();
}

void HttpForwarder::PendingRequest::detach() {
  owner_ = nullptr;
  if (!finished_ && target_) target_->cancel();
  finished_ = true;
}

HttpForwarder::HttpForwarder(std::shared_ptr<Reactor> reactor, std::shared_ptr<HttpClient> client,
                             std::string targetHost)
    : reactor_(std::move(reactor)), client_(std::move(client)), targetHost_(std::move(targetHost)) {
  QLOG(Log, log::Debug, "Created HTTP forwarder, target is %s", targetHost_);
}

HttpForwarder::~HttpForwarder() {
  for (const std::shared_ptr<PendingRequest>& pending : pending_) pending->detach();
}

bool HttpForwarder::handle(const std::shared_ptr<WebRequest>& request) {
  std::shared_ptr<PendingRequest> pending;
  if (spare_.empty()) {
    pending = std::make_shared<PendingRequest>(*this);
  } else {
    pending = std::move(spare_.back());
    spare_.pop_back();
  }
  pending->open(++serial_, request);
  pending_.push_back(pending);
  QLOG(Log, log::Debug, "Created new pending request, count=%u", pending_.size());
  pending->start();
  return true;
}

void HttpForwarder::scheduleCleanUp(PendingRequest* request) {
  reactor_->post(token_, [this, request, use = request->use()] { cleanUp(request, use); });
}

void HttpForwarder::cleanUp(PendingRequest* request, uint64_t use) {
  const auto found = std::find_if(pending_.begin(), pending_.end(),
                                  [request](const std::shared_ptr<PendingRequest>& p) { return p.get() == request; });
  if (found == pending_.end() || request->use() != use) return;
  const std::shared_ptr<PendingRequest> pending = std::move(*found);
  pending_.erase(found);
  QLOG(Log, log::Debug, "Cleaning up pending request %s, count=%u", pending->name(), pending_.size());
  pending->close();
  // Kept for the next request unless something still holds it.
  if (pending.use_count() == 1 && spare_.size() < SpareLimit) spare_.push_back(pending);
}

}  // namespace quorvel
