#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "http/http_client_error.h"
#include "http/http_connection.h"
#include "http/http_connection_pool.h"
#include "net/name_resolver.h"

namespace quorvel {

// Gets one connected HttpConnection for a client request: resolves the
// connect host once, asks the pool, and has a new connection try the
// resolved addresses in turn. A connection stays here until it is connected;
// the handlers run on the reactor's thread, never inside start() or again().
// Log: "httpclient", with the request's identity.
class ConnectionAcquirer : public std::enable_shared_from_this<ConnectionAcquirer> {
 public:
  // `reused`: it came open from the pool rather than newly connected.
  using ReadyHandler = Delegate<void(const std::shared_ptr<HttpConnection>& connection, bool reused)>;
  using FailedHandler = Delegate<void(HttpClientError error)>;

  // `connectHost` is "host", "host:port" or "[v6]:port"; without a port the
  // service is `defaultService` (the scheme).
  ConnectionAcquirer(uintptr_t identity, std::shared_ptr<NameResolver> resolver,
                     std::shared_ptr<HttpConnectionPool> pool, const std::string& connectHost,
                     const std::string& defaultService);
  // A connection still being connected is closed and given back.
  ~ConnectionAcquirer();
  ConnectionAcquirer(const ConnectionAcquirer&) = delete;
  ConnectionAcquirer& operator=(const ConnectionAcquirer&) = delete;

  // `progress` runs at each step that counts as network progress.
  void setHandlers(const ReadyHandler& ready, const FailedHandler& failed, const Delegate<void()>& progress);
  void start();
  // Another connection to the same destination, without a new lookup.
  void again();
  // No handler runs any more; a connection handed over later, or one being
  // connected, is closed and given back to the pool.
  void stop();
  // stop(), and the pool forgets a request still waiting for a connection.
  void withdraw();

 private:
  void onResolved(const NameResolver::Result& result, bool found);
  void request();
  void onConnection(const std::shared_ptr<HttpConnection>& connection);
  void onConnect(int error);
  void progress();
  void fail(HttpClientError error);
  void giveBack();

  const uintptr_t identity_;
  std::shared_ptr<NameResolver> resolver_;
  std::shared_ptr<HttpConnectionPool> pool_;
  const std::string connectHost_;
  std::string host_, service_;
  HttpDestination destination_;
  std::shared_ptr<HttpConnection> connecting_;
  bool stopped_ = false;
  ReadyHandler ready_;
  FailedHandler failed_;
  Delegate<void()> progress_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
