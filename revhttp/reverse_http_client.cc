#include "revhttp/reverse_http_client.h"

namespace quorvel {

constexpr Duration ReverseHttpClient::FirstRetryDelay;
constexpr Duration ReverseHttpClient::LastRetryDelay;
constexpr std::size_t ReverseHttpClient::HeadBufferSize;

ReverseHttpClient::ReverseHttpClient(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> bufferPool,
                                     std::shared_ptr<HttpClient> httpClient, const std::string& registrationUrl,
                                     const std::string& key)
    : registration_(std::make_shared<RelayRegistration>(reactor, httpClient, registrationUrl, key)),
      poll_(std::make_shared<RelayPoll>(reactor, std::move(bufferPool), httpClient)) {
  const std::weak_ptr<RelayPoll> poll = poll_;
  registration_->setRegisteredHandler([poll](const std::string& relayUrl) {
    if (std::shared_ptr<RelayPoll> held = poll.lock()) held->start(relayUrl);
  });
  const std::weak_ptr<RelayRegistration> registration = registration_;
  poll_->setFailedHandler([registration]() {
    if (std::shared_ptr<RelayRegistration> held = registration.lock()) held->retry();
  });
}

}  // namespace quorvel
