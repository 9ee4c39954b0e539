#include "revhttp/relay_registration.h"

#include <exception>
#include <utility>

#include "core/log.h"
#include "http/http_names.h"
#include "revhttp/client_calls.h"
#include "revhttp/link_field.h"

namespace quorvel {
namespace {

const log::Log Log("revhttp");

// Clamps the doubled wait to the longest one.
Duration nextDelay(Duration delay) {
  const Duration doubled = delay * 2;
  return doubled > RelayRegistration::LastRetryDelay ? RelayRegistration::LastRetryDelay : doubled;
}

}  // namespace

constexpr Duration RelayRegistration::FirstRetryDelay;
constexpr Duration RelayRegistration::LastRetryDelay;

RelayRegistration::RelayRegistration(std::shared_ptr<Reactor> reactor, std::shared_ptr<HttpClient> http,
                                     const std::string& registrationUrl, const std::string& key)
    : reactor_(std::move(reactor)),
      http_(std::move(http)),
      registrationUrl_(registrationUrl),
      key_(key),
      body_("drk=" + key),
      retryTask_([this]() { start(); }) {}

RelayRegistration::~RelayRegistration() {
  retryTask_.cancel();
  if (request_) request_->cancel();
}

void RelayRegistration::start() {
  QLOG(Log, log::Info, "Registering at %s with key %s", registrationUrl_, key_);
  std::shared_ptr<WebClientRequest> request;
  try {
    request = requestTo(*http_, "POST", registrationUrl_);
  } catch (const std::exception& error) {
    QLOG(Log, log::Notice, "POST request to %s failed: %s", registrationUrl_, error.what());
    awaitedSerial_ = 0;
    retry();
    return;
  }
  if (request_) releaseLater(*reactor_, token_, std::move(request_));
  request_ = request;
  const uint64_t serial = awaitedSerial_ = ++lastSerial_;
  const std::weak_ptr<RelayRegistration> self = weak_from_this();
  request->setResponseHandler([self, serial](const std::shared_ptr<WebClientResponse>& response) {
    if (std::shared_ptr<RelayRegistration> registration = self.lock()) registration->onResponse(serial, response);
  });
  request->setErrorHandler([self, serial](const boost::system::error_code& code) {
    if (std::shared_ptr<RelayRegistration> registration = self.lock()) registration->onError(serial, code);
  });
  request->headers().addField(HttpHeader::ContentType, "application/x-www-form-urlencoded");
  request->send(body_.data(), body_.size());
}

void RelayRegistration::onResponse(uint64_t serial, const std::shared_ptr<WebClientResponse>& response) {
  if (serial != awaitedSerial_) return;
  awaitedSerial_ = 0;
  discardBody(response);
  const MessageHeaders& headers = response->headers();
  if (headers.statusCode() != HttpStatus::Created.code) {
    QLOG(Log, log::Notice, "Register response has status %d %s", headers.statusCode(), headers.reason());
    retry();
    return;
  }
  const std::string relayUrl = findLink(headers, "first", registrationUrl_);
  if (relayUrl.empty()) {
    QLOG(Log, log::Notice, "Register response has no Link field");
    retry();
    return;
  }
  QLOG(Log, log::Info, "Registration succeeded");
  delay_ = FirstRetryDelay;
  releaseLater(*reactor_, token_, std::move(request_));
  if (onRegistered_) onRegistered_(relayUrl);
}

void RelayRegistration::onError(uint64_t serial, const boost::system::error_code& code) {
  if (serial != awaitedSerial_ || !code) return;
  awaitedSerial_ = 0;
  QLOG(Log, log::Notice, "Registration request failed with code %u", code.value());
  retry();
}

void RelayRegistration::retry() {
  retryTask_.cancel();
  reactor_->scheduleAfter(token_, delay_, retryTask_.start());
  delay_ = nextDelay(delay_);
}

}  // namespace quorvel
