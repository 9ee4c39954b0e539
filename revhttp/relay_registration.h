#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include "core/cancelable_task.h"
#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"
#include "http/http_client.h"

namespace quorvel {

// Registers the device key with the relay service and learns the first relay
// URL; retries with a growing wait while that fails, and when the relay poll
// fails later. Log: "revhttp".
class RelayRegistration : public std::enable_shared_from_this<RelayRegistration> {
 public:
  // Waits before successive attempts double from the first to the last; only
  // a successful registration brings them back to the first.
  static constexpr Duration FirstRetryDelay = Duration::seconds(1);
  static constexpr Duration LastRetryDelay = Duration::seconds(30);

  using RegisteredCallback = Delegate<void(const std::string& relayUrl)>;

  RelayRegistration(std::shared_ptr<Reactor> reactor, std::shared_ptr<HttpClient> http,
                    const std::string& registrationUrl, const std::string& key);
  ~RelayRegistration();
  RelayRegistration(const RelayRegistration&) = delete;
  RelayRegistration& operator=(const RelayRegistration&) = delete;

  void setRegisteredHandler(const RegisteredCallback& handler) { onRegistered_ = handler; }
  // Registers at once.
  void start();
  // Registers again after the current wait, which then grows.
  void retry();
  // The wait before the next attempt if one fails now.
  Duration retryDelay() const { return delay_; }

 private:
  void onResponse(uint64_t serial, const std::shared_ptr<WebClientResponse>& response);
  void onError(uint64_t serial, const boost::system::error_code& code);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<HttpClient> http_;
  const std::string registrationUrl_;
  const std::string key_;
  const std::string body_;
  RegisteredCallback onRegistered_;

  std::shared_ptr<WebClientRequest> request_;
  // The serial of the POST whose answer is awaited, 0 once it has been
  // handled: late callbacks of earlier ones are told apart.
  uint64_t awaitedSerial_ = 0;
  uint64_t lastSerial_ = 0;
  Duration delay_ = FirstRetryDelay;
  CancelableTask retryTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
