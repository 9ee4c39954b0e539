#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/system/error_code.hpp>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/lifetime_ref.h"
#include "core/reactor.h"
#include "http/http_client.h"
#include "http/web_request.h"
#include "revhttp/client_calls.h"
#include "revhttp/relay_exchange.h"

namespace quorvel {

// The relay GET loop: one GET at a time to the relay URL, each answer either
// empty (204) or carrying one outside request, which a RelayExchange takes
// over while the next GET goes out. Any answer that breaks the protocol ends
// the loop; registering again restarts it. Log: "revhttp".
class RelayPoll : public std::enable_shared_from_this<RelayPoll> {
 public:
  using FailedCallback = Delegate<void()>;

  RelayPoll(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> pool,
            std::shared_ptr<HttpClient> http);
  ~RelayPoll();
  RelayPoll(const RelayPoll&) = delete;
  RelayPoll& operator=(const RelayPoll&) = delete;

  void setRequestHandler(const std::shared_ptr<WebRequestHandler>& handler) { handler_ = handler; }
  void setFailedHandler(const FailedCallback& handler) { onFailed_ = handler; }
  // Polls from this relay URL on.
  void start(const std::string& relayUrl);

  // Where the next GET goes; empty before the start and after a failure.
  const std::string& url() const { return url_; }
  std::size_t activeCount() const { return active_.size(); }
  std::size_t finishedCount() const { return finished_.size(); }
  std::size_t freeCount() const { return free_.size(); }

 private:
  // Recycled exchanges kept beyond this many are freed.
  static constexpr std::size_t FreeListLimit = 32;

  void requestStep();
  // The relay URL becomes `reference` resolved against it.
  void follow(StringSection reference);
  void onResponse(uint64_t serial, const std::shared_ptr<WebClientResponse>& response);
  void onError(uint64_t serial, const boost::system::error_code& code);
  void fail();
  std::shared_ptr<RelayExchange> obtainExchange();
  void recycleFinished();
  void onExchangeDone(RelayExchange& exchange);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> pool_;
  std::shared_ptr<HttpClient> http_;
  std::shared_ptr<WebRequestHandler> handler_;
  FailedCallback onFailed_;
  std::string url_;
  // url_ taken apart for the client, and the URL it was taken from.
  UrlParts parts_;
  std::string partsUrl_;
  // The last link followed: against what, which, and where it led.
  std::string followedBase_, followedReference_, followedUrl_;

  std::shared_ptr<WebClientRequest> request_;
  std::shared_ptr<WebClientRequest> previousRequest_;
  // The serial of the GET whose response head is awaited, 0 once it has been
  // handled: late callbacks of earlier GETs are told apart.
  uint64_t awaitedSerial_ = 0;
  uint64_t lastSerial_ = 0;
  uint64_t lastUse_ = 0;

  std::vector<std::shared_ptr<RelayExchange>> active_;
  std::vector<std::shared_ptr<RelayExchange>> finished_;
  std::vector<std::shared_ptr<RelayExchange>> free_;
  LifetimeAnchor<RelayPoll> anchor_{this};
};

}  // namespace quorvel
