#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "core/reactor.h"
#include "core/time.h"
#include "http/http_client.h"
#include "http/web_request.h"
#include "net/buffer_chain.h"
#include "revhttp/relay_poll.h"
#include "revhttp/relay_registration.h"
#include "revhttp/request_head_reader.h"

namespace quorvel {

// Makes the device's web resources reachable from outside without any
// inbound connection: registers with the relay service under the device key
// (RelayRegistration), then pulls the requests that outside clients sent to
// the relay, one GET at a time (RelayPoll), hands each to the request handler
// and posts the answer back (RelayExchange). A failing poll registers again.
// Everything runs on the reactor's thread. Create with make_shared.
class ReverseHttpClient {
 public:
  static constexpr Duration FirstRetryDelay = RelayRegistration::FirstRetryDelay;
  static constexpr Duration LastRetryDelay = RelayRegistration::LastRetryDelay;
  // A relayed request's head must fit in this many bytes.
  static constexpr std::size_t HeadBufferSize = RequestHeadReader::Capacity;

  ReverseHttpClient(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> bufferPool,
                    std::shared_ptr<HttpClient> httpClient, const std::string& registrationUrl,
                    const std::string& key);
  ReverseHttpClient(const ReverseHttpClient&) = delete;
  ReverseHttpClient& operator=(const ReverseHttpClient&) = delete;

  // Requests that arrive from then on go to this handler.
  void setRequestHandler(const std::shared_ptr<WebRequestHandler>& handler) { poll_->setRequestHandler(handler); }
  // Registers at once; called once.
  void start() { registration_->start(); }

  // Where the next relay GET goes; empty until registered and after a failure.
  const std::string& relayUrl() const { return poll_->url(); }
  // The wait before the next registration attempt if one fails now.
  Duration retryDelay() const { return registration_->retryDelay(); }
  std::size_t activeCount() const { return poll_->activeCount(); }
  std::size_t finishedCount() const { return poll_->finishedCount(); }
  std::size_t freeCount() const { return poll_->freeCount(); }

 private:
  std::shared_ptr<RelayRegistration> registration_;
  std::shared_ptr<RelayPoll> poll_;
};

}  // namespace quorvel
