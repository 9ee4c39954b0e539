#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/system/error_code.hpp>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"
#include "http/http_client.h"
#include "http/web_request.h"
#include "net/buffer_chain.h"

namespace quorvel {

// Makes the device's web resources reachable from outside without any
// inbound connection: registers with the relay service under the device key,
// then pulls the requests that outside clients sent to the relay, one GET at
// a time, hands each to the request handler and posts the answer back.
// Everything runs on the reactor's thread. Create with make_shared.
class ReverseHttpClient : public std::enable_shared_from_this<ReverseHttpClient> {
 public:
  class TargetRequest;
  class TargetResponse;

  // Waits before successive registration attempts double from the first to
  // the last; only a successful registration brings them back to the first.
  static constexpr Duration FirstRetryDelay = Duration::seconds(1);
  static constexpr Duration LastRetryDelay = Duration::seconds(30);
  // A relayed request's head must fit in this many bytes.
  static constexpr std::size_t HeadBufferSize = 4096;

  ReverseHttpClient(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> bufferPool,
                    std::shared_ptr<HttpClient> httpClient, const std::string& registrationUrl,
                    const std::string& key);
  ~ReverseHttpClient();
  ReverseHttpClient(const ReverseHttpClient&) = delete;
  ReverseHttpClient& operator=(const ReverseHttpClient&) = delete;

  void setRequestHandler(const std::shared_ptr<WebRequestHandler>& handler) { handler_ = handler; }
  // Registers at once; called once.
  void start();

  // Where the next relay GET goes; empty until registered.
  const std::string& relayUrl() const { return relayUrl_; }
  // The wait before the next registration attempt if one fails now.
  Duration retryDelay() const { return delay_; }
  std::size_t activeCount() const { return active_.size(); }
  std::size_t finishedCount() const { return finished_.size(); }
  std::size_t freeCount() const { return free_.size(); }

 private:
  struct PendingRequest;
  struct PendingHandle;
  using PendingPtr = std::shared_ptr<PendingRequest>;
  using ClientRequestPtr = std::shared_ptr<WebClientRequest>;
  using ClientResponsePtr = std::shared_ptr<WebClientResponse>;

  // Recycled objects kept beyond this many are freed.
  static constexpr std::size_t FreeListLimit = 32;

  void registerStep();
  void onRegisterResponse(uint64_t serial, const ClientResponsePtr& response);
  void onRegisterError(uint64_t serial, const boost::system::error_code& code);
  void retryStep();

  void relayRequestStep();
  void onRelayResponse(uint64_t serial, const ClientResponsePtr& response);
  void onRelayError(uint64_t serial, const boost::system::error_code& code);
  using ResponseStep = void (ReverseHttpClient::*)(uint64_t serial, const ClientResponsePtr& response);
  using ErrorStep = void (ReverseHttpClient::*)(uint64_t serial, const boost::system::error_code& code);
  ClientRequestPtr makeRequest(const char* method, const std::string& url);
  // Makes the new request in progress, its handlers bound to its serial.
  // Null, with a retry scheduled, when the HTTP client refuses the URL.
  ClientRequestPtr beginRequest(const char* method, const std::string& url, ResponseStep onResponse,
                                ErrorStep onError);

  PendingPtr obtainPending();
  void recycleFinished();
  PendingHandle handleOf(PendingRequest& pending);
  void drainRelayBody(PendingRequest& pending);
  void relayData(PendingRequest& pending, const BufferChainPtr& piece);
  void relayDataEnd(PendingRequest& pending);
  void forwardBody(PendingRequest& pending, const BufferChainPtr& piece);
  void headComplete(PendingRequest& pending, std::size_t separator, std::size_t filledBefore,
                    const BufferChainPtr& piece);

  // Answers: a target response (head now, maybe data and the end), its later
  // body, and the fixed answer for requests nobody takes.
  void replyStep(PendingRequest& pending, const uint8_t* data, std::size_t length, bool end);
  void pumpReply(PendingRequest& pending);
  void simpleReply(PendingRequest& pending, const HttpStatus& status);
  // The POST that carries an answer, as the pending request's reply request;
  // false (and the pending request done) when the HTTP client refuses it.
  bool makeReplyRequest(PendingRequest& pending, const std::string& url);
  std::string replyUrl(const PendingRequest& pending) const;
  void onReplyResponse(PendingRequest& pending, const ClientResponsePtr& response);
  void onReplyError(PendingRequest& pending, const boost::system::error_code& code);
  void doneStep(PendingRequest& pending);

  // Nothing is destroyed inside its own callback: references are dropped on
  // a later turn of the loop.
  template <typename T>
  void releaseLater(T&& held);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> pool_;
  std::shared_ptr<HttpClient> http_;
  std::shared_ptr<WebRequestHandler> handler_;
  const std::string registrationUrl_;
  const std::string key_;
  const std::string registerBody_;
  std::string relayUrl_;

  ClientRequestPtr inProgress_;
  // The serial of the request in progress while its response head is awaited;
  // 0 once it has been handled, so late callbacks of earlier requests are told
  // apart.
  uint64_t awaitedSerial_ = 0;
  uint64_t lastSerial_ = 0;
  uint64_t lastGeneration_ = 0;

  std::vector<PendingPtr> active_;
  std::vector<PendingPtr> finished_;
  std::vector<PendingPtr> free_;

  Duration delay_ = FirstRetryDelay;
  CancelableTask retryTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
