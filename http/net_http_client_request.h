#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include "core/lifetime.h"
#include "core/lifetime_ref.h"
#include "core/reactor.h"
#include "core/time.h"
#include "http/connection_acquirer.h"
#include "http/http_client_error.h"
#include "http/http_connection_pool.h"
#include "http/request_sender.h"
#include "http/request_watchdog.h"
#include "http/response_receiver.h"
#include "http/request_shelf.h"
#include "http/web_client.h"
#include "net/buffer_chain.h"
#include "net/name_resolver.h"

namespace quorvel {

// One exchange of NetHttpClient (see there for the calling order): gets a
// connection (ConnectionAcquirer), sends the request (RequestSender), reads
// the response (ResponseReceiver), and retries a GET or HEAD once when a kept
// connection turns out closed. The three are parts of the request, made with
// it in one block, and report to it by direct calls. The client keeps request
// objects between uses (RequestShelf): each use is one handle, and ends when
// the caller lets go of it as an object's destruction would end it; the
// object goes back once the response's handle has gone too. Log:
// "httpclient", lines beginning with the request's address.
class NetHttpClientRequest : public WebClientRequest,
                             public RequestWatchdog::Watched,
                             private ConnectionAcquirer::Owner,
                             private ResponseReceiver::Owner,
                             private HttpConnection::User,
                             public std::enable_shared_from_this<NetHttpClientRequest> {
 public:
  // What the handles' deleters do.
  struct HandleRelease {
    void operator()(NetHttpClientRequest* request) const { request->releaseHandle(); }
  };
  struct ResponseRelease {
    NetHttpClientRequest* request;
    void operator()(NetHttpClientResponse*) const { request->releaseResponse(); }
  };

  NetHttpClientRequest(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
                       std::shared_ptr<NameResolver> resolver, std::shared_ptr<RequestWatchdog> watchdog,
                       std::weak_ptr<RequestShelf> shelf);
  ~NetHttpClientRequest() override;

  // Readies the object for an exchange, nothing of the last one left; the
  // caller then makes its handle (HandleRelease) and calls begin(). Throws
  // std::invalid_argument "Request line too long", changing nothing.
  void open(std::shared_ptr<HttpConnectionPool> pool, const std::string& method, const std::string& scheme,
            const std::string& hostValue, const std::string& connectHost, const std::string& path);
  void begin();

  void setResponseHandler(const ResponseHandler& handler) override { receiver_.setResponseHandler(handler); }
  void setErrorHandler(const ErrorHandler& handler) override { errorHandler_ = handler; }
  void setBodyDataHandler(const BodyDataHandler& handler) override { receiver_.setBodyDataHandler(handler); }
  MessageHeaders& headers() override { return headers_; }
  void setCloseConnection() override;
  void send(const void* data, std::size_t length) override;
  void startStreaming() override;
  // There from the start, so a body may be connected before the request
  // starts; the handle goes with this use.
  std::weak_ptr<BodySink> bodySink() override { return std::shared_ptr<BodySink>(shared_from_this(), &bodySink_); }
  bool isStarted() const override { return started_; }
  void cancel() override;

  // Ends the request when the network has made no progress for the time-out.
  void checkTimeout() override;

 private:
  uintptr_t id() const { return reinterpret_cast<uintptr_t>(this); }
  std::string text() const;
  // Progress is stamped by the watchdog's next tick, not here: a request
  // makes progress several times an exchange, and a clock read each time
  // cost more than the rest of the bookkeeping. The time-out then counts
  // from up to one tick after the progress, as it is checked only at ticks.
  void touch() { progressed_ = true; }

  // ConnectionAcquirer::Owner
  void onAcquired(const std::shared_ptr<HttpConnection>& connection, bool reused) override;
  void onAcquireFailed(HttpClientError error) override;
  void onAcquireProgress() override { touch(); }
  std::weak_ptr<ConnectionAcquirer> acquirerReference() override {
    return std::shared_ptr<ConnectionAcquirer>(shared_from_this(), &acquirer_);
  }
  // ResponseReceiver::Owner
  void receiveMore() override;
  void responseComplete() override { complete(); }
  void responseFailed(HttpClientError error) override { fail(error); }
  std::shared_ptr<NetHttpClientResponse> shareResponse(NetHttpClientResponse& response) override;

  // The caller's handle has gone: the exchange ends.
  void releaseHandle();
  void releaseResponse();
  // Back to the shelf once neither handle is out.
  void shelve();

  void onConnected();

  bool readCallerFields();
  void startSending();
  bool holdHead();
  void pumpBody();
  void onSent(int error, std::size_t bytes, bool body, unsigned attempt);
  bool retryOnNewConnection();

  // HttpConnection::User
  void onConnectionData(int error, BufferChain& data) override;

  void complete();
  void fail(HttpClientError error);
  void failLater(HttpClientError error);
  void finish(const boost::system::error_code& code);
  void releaseConnection(bool close);
  // A connection taken at once may go back before anything was sent on it
  // (the caller dropped the request unsent); it can then be kept.
  bool isConnectionUntouched() const { return !sender_.hasSent() && receiver_.receivedBytes() == 0; }

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  std::shared_ptr<HttpConnectionPool> pool_;
  std::shared_ptr<RequestWatchdog> watchdog_;
  const std::weak_ptr<RequestShelf> shelf_;
  // The handles out: the request's and, once it has come, the response's.
  unsigned handles_ = 0;
  // The path and the Host value live in headers_ only.
  std::string method_, scheme_, connectHost_;
  MessageHeaders headers_;
  const Duration timeout_;

  ErrorHandler errorHandler_;

  ConnectionAcquirer acquirer_;
  std::shared_ptr<HttpConnection> connection_;
  bool connected_ = false;

  // Inside begin(), where the caller's handlers are not set yet.
  bool beginning_ = false;
  bool started_ = false;
  bool done_ = false;
  bool reused_ = false;
  // A streamed head waits for the end of the turn it was started in (once).
  bool headHeld_ = false;
  BodySink bodySink_;
  RequestSender sender_;

  ResponseReceiver receiver_;
  // Asked for by the caller.
  bool closeAfter_ = false;

  SteadyTime lastActivity_;
  bool progressed_ = false;
  // What its callbacks hold. Last, so the first to go: nothing reaches the
  // object once its destruction has begun.
  LifetimeAnchor<NetHttpClientRequest> anchor_{this};
  LifetimeAnchor<ResponseReceiver> receiverAnchor_{this, &receiver_};
};

}  // namespace quorvel
