#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"
#include "http/encoding_parser.h"
#include "http/http_client_error.h"
#include "http/http_connection_pool.h"
#include "http/request_sender.h"
#include "http/request_watchdog.h"
#include "http/response_head_reader.h"
#include "http/web_client.h"
#include "net/buffer_chain.h"
#include "net/name_resolver.h"

namespace quorvel {

class NetHttpClientResponse;

// One exchange of NetHttpClient (see there for the calling order): resolves
// the host, takes a connection from the pool, sends the request, reads the
// response, and retries a GET or HEAD once when a kept connection turns out
// closed. Log: "httpclient", lines beginning with the request's address.
class NetHttpClientRequest : public WebClientRequest,
                             public RequestWatchdog::Watched,
                             public std::enable_shared_from_this<NetHttpClientRequest> {
 public:
  NetHttpClientRequest(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
                       std::shared_ptr<NameResolver> resolver, std::shared_ptr<HttpConnectionPool> pool,
                       std::shared_ptr<RequestWatchdog> watchdog,
                       const std::string& method, const std::string& scheme, const std::string& hostValue,
                       const std::string& connectHost, const std::string& path);
  ~NetHttpClientRequest() override;

  void begin();

  void setResponseHandler(const ResponseHandler& handler) override { responseHandler_ = handler; }
  void setErrorHandler(const ErrorHandler& handler) override { errorHandler_ = handler; }
  void setBodyDataHandler(const BodyDataHandler& handler) override { bodyDataHandler_ = handler; }
  MessageHeaders& headers() override { return headers_; }
  void setCloseConnection() override;
  void send(const void* data, std::size_t length) override;
  void startStreaming() override;
  // Made on first use, so a body may be connected before the request starts.
  std::weak_ptr<BodySink> bodySink() override {
    if (!bodySink_) bodySink_ = std::make_shared<BodySink>();
    return bodySink_;
  }
  bool isStarted() const override { return started_; }
  void cancel() override;

  // Ends the request when the network has made no progress for the time-out.
  void checkTimeout() override;

 private:
  uintptr_t id() const { return reinterpret_cast<uintptr_t>(this); }
  std::string text() const { return method_ + " " + scheme_ + "://" + hostValue_ + path_; }
  std::weak_ptr<NetHttpClientRequest> weak() { return shared_from_this(); }
  void touch() { lastActivity_ = reactor_->timeProvider()->now(); }

  void onResolved(const NameResolver::Result& result, bool found);
  void requestConnection();
  void onConnection(const std::shared_ptr<HttpConnection>& connection);
  void connectAll();
  void onConnect(int error);
  void onConnected();

  void startSending();
  void pumpBody();
  void onSent(int error, std::size_t bytes, bool body, unsigned attempt);
  bool retryOnNewConnection();

  void onReceive(int error, BufferChain& data);
  void onHead();
  void deliverBody();
  void onUnblocked();
  void endBody();

  void complete();
  void fail(HttpClientError error);
  void failLater(HttpClientError error);
  void finish(const boost::system::error_code& code);
  void releaseConnection(bool close);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  std::shared_ptr<NameResolver> resolver_;
  std::shared_ptr<HttpConnectionPool> pool_;
  std::shared_ptr<RequestWatchdog> watchdog_;
  const std::string method_, scheme_, hostValue_, connectHost_, path_;
  std::string host_, service_;
  MessageHeaders headers_;
  const Duration timeout_;

  ResponseHandler responseHandler_;
  ErrorHandler errorHandler_;
  BodyDataHandler bodyDataHandler_;

  HttpDestination destination_;
  std::shared_ptr<HttpConnection> connection_;
  bool connected_ = false;

  bool started_ = false;
  bool done_ = false;
  bool reused_ = false;
  std::shared_ptr<BodySink> bodySink_;
  RequestSender sender_;

  // Incoming.
  std::unique_ptr<ResponseHeadReader> reader_;
  std::unique_ptr<WebEncodingParser> parser_;
  std::shared_ptr<NetHttpClientResponse> response_;
  bool closeAfter_ = false;
  bool paused_ = false;

  Time lastActivity_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
