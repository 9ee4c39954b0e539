#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/lifetime.h"
#include "core/reactor.h"
#include "http/http_client.h"
#include "http/web_request.h"

namespace quorvel {

// The handler of last resort: relays every request it is given to one fixed
// target host over plain HTTP and streams the target's answer back, head and
// body, through the request's own response. A target that cannot be reached
// is answered with 502 "Unable to relay request".
//
// Bodies on both sides are payload: the HTTP client frames the target request
// itself, so an incoming Transfer-Encoding is not passed on, while the
// target's response fields are passed on as they are and the response body
// arrives with its framing already removed.
class HttpForwarder : public WebRequestHandler {
 public:
  // `targetHost` is "host", "host:port" or "[v6]:port". The reactor runs the
  // clean-up of finished requests, so that none is destroyed inside one of
  // its own callbacks.
  HttpForwarder(std::shared_ptr<Reactor> reactor, std::shared_ptr<HttpClient> client, std::string targetHost);
  // Requests still in flight are cancelled; their clients get no answer.
  ~HttpForwarder() override;
  HttpForwarder(const HttpForwarder&) = delete;
  HttpForwarder& operator=(const HttpForwarder&) = delete;

  // Takes every request.
  bool handle(const std::shared_ptr<WebRequest>& request) override;

  // The X-Forwarded-Proto value for requests that arrive without one, e.g.
  // "https" when requests reach this process over TLS. Empty (the default)
  // adds none. Applies to requests handled after the call.
  void setForwardedProtocol(const std::string& protocol) { forwardedProtocol_ = protocol; }
  const std::string& forwardedProtocol() const { return forwardedProtocol_; }
  const std::string& targetHost() const { return targetHost_; }

  // Requests being relayed, finished ones included until their clean-up has
  // run on the reactor.
  std::size_t pendingCount() const { return pending_.size(); }

 private:
  class PendingRequest;

  // Pending-request objects kept for reuse beyond this many are freed.
  static constexpr std::size_t SpareLimit = 32;

  void scheduleCleanUp(PendingRequest* request);
  void cleanUp(PendingRequest* request, uint64_t use);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<HttpClient> client_;
  const std::string targetHost_;
  std::string forwardedProtocol_;
  // In flight, finished ones too until their clean-up has run; and objects
  // kept for the next requests.
  std::vector<std::shared_ptr<PendingRequest>> pending_;
  std::vector<std::shared_ptr<PendingRequest>> spare_;
  uint32_t serial_ = 0;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
