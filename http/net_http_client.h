#pragma once

#include <memory>
#include <string>

#include "core/reactor.h"
#include "core/time.h"
#include "http/http_client.h"
#include "http/http_client_error.h"
#include "http/http_connection_pool.h"
#include "net/async_socket.h"
#include "net/buffer_chain.h"
#include "net/name_resolver.h"

namespace quorvel {

class RequestShelf;
class RequestWatchdog;

// The process's HTTP/1.1 client over pooled persistent connections, one pool
// per socket factory (plain, and TLS when a factory for it is given).
//
// Calling order for a request:
//   1. createRequest(...) -- resolving and getting a connection start at once;
//   2. on the request: setResponseHandler, setErrorHandler (and
//      setBodyDataHandler to take the body as pieces instead of through the
//      response's body source), add fields to headers(), setCloseConnection();
//   3. send(data, length), or startStreaming() and feed bodySink() (put
//      chains, end()) or connect a BodySource to it; what the sink holds
//      when the head goes out is written with it, so feeding it first saves
//      a write;
//   4. the response handler gets the head; the body follows through
//      response->body() (connect it to a BodySink) or the body data handler;
//   5. the error handler runs once at the end: a code whose value is 0 once
//      the whole body has been delivered, otherwise an HttpClientError code.
//      The body stream ends before that success code, at once after the head
//      for responses without a body (HEAD, 1xx, 204, 304). After a failure
//      that follows the head, the body stream is not ended.
// Handlers run on the reactor's thread, never inside the caller's own calls.
// The caller owns the request: dropping the last reference (or cancel())
// ends the exchange, and its connection is closed rather than reused.
class NetHttpClient : public HttpClient {
 public:
  static const Duration RequestTimeout;  // 60 s without progress on the network

  // `ssl` may be null ("https" then throws); `connectionLimit` 0 means 32.
  NetHttpClient(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
                std::shared_ptr<AsyncSocketFactory> plain, std::shared_ptr<AsyncSocketFactory> ssl,
                std::shared_ptr<NameResolver> resolver, unsigned connectionLimit = 0);
  ~NetHttpClient() override;

  // Throws std::runtime_error "HTTPS connections not supported" for "https"
  // without a TLS factory.
  std::shared_ptr<WebClientRequest> createRequest(const std::string& method, const std::string& scheme,
                                                  const std::string& hostValue, const std::string& connectHost,
                                                  const std::string& path) override;

  const std::shared_ptr<HttpConnectionPool>& plainPool() const { return plainPool_; }
  const std::shared_ptr<HttpConnectionPool>& sslPool() const { return sslPool_; }

  // "host", "host:port", "[v6]" or "[v6]:port" into the name to resolve and
  // the service; without a port the service is `defaultService`.
  static void splitConnectHost(const std::string& connectHost, const std::string& defaultService,
                               std::string& host, std::string& service);

 private:
  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  std::shared_ptr<NameResolver> resolver_;
  std::shared_ptr<HttpConnectionPool> plainPool_;
  std::shared_ptr<HttpConnectionPool> sslPool_;
  std::shared_ptr<RequestWatchdog> watchdog_;
  std::shared_ptr<RequestShelf> shelf_;
};

}  // namespace quorvel
