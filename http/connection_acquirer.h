#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/delegate.h"
#include "http/http_client_error.h"
#include "http/http_connection.h"
#include "http/http_connection_pool.h"
#include "net/name_resolver.h"

namespace quorvel {

// Gets one connected HttpConnection for a client request: resolves the
// connect host once, asks the pool, and has a new connection try the
// resolved addresses in turn. A connection stays here until it is connected.
// It is a part of its request: it reports to it directly, and its own
// callbacks reach it through a weak reference that the request gives it
// when asked (one that shares the request's life). The reports come on the reactor's
// thread: inside start() when the host is known without a lookup and the
// pool has a connection for it at once, never inside again(). Log:
// "httpclient", with the request's identity.
class ConnectionAcquirer {
 public:
  class Owner {
   public:
    // `reused`: it came open from the pool rather than newly connected.
    virtual void onAcquired(const std::shared_ptr<HttpConnection>& connection, bool reused) = 0;
    virtual void onAcquireFailed(HttpClientError error) = 0;
    // A step that counts as network progress.
    virtual void onAcquireProgress() = 0;
    // A reference to the acquirer that lives as long as the request's use,
    // for the callbacks of the slower ways (a lookup, a wait, a connect):
    // asked for only when one is taken.
    virtual std::weak_ptr<ConnectionAcquirer> acquirerReference() = 0;

   protected:
    ~Owner() = default;
  };

  ConnectionAcquirer(Owner& owner, uintptr_t identity, std::shared_ptr<NameResolver> resolver);
  // A connection still being connected is closed and given back.
  ~ConnectionAcquirer();
  ConnectionAcquirer(const ConnectionAcquirer&) = delete;
  ConnectionAcquirer& operator=(const ConnectionAcquirer&) = delete;

  // Gets a connection from `pool`. `connectHost` is "host", "host:port" or
  // "[v6]:port"; without a port the service is `defaultService` (the
  // scheme). Whatever the last use left is gone.
  void start(const std::shared_ptr<HttpConnectionPool>& pool, const std::string& connectHost,
             const std::string& defaultService);
  // Another connection to the same destination, without a new lookup.
  void again();
  // Nothing is reported any more; a connection handed over later, or one
  // being connected, is closed and given back to the pool.
  void stop();
  // stop(), and the pool forgets a request still waiting for a connection.
  void withdraw();

 private:
  bool reuseKnown(const std::string& connectHost, const std::string& defaultService);
  void onResolved(const NameResolver::Result& result, bool found);
  void request();
  void onConnection(const std::shared_ptr<HttpConnection>& connection);
  void onConnect(int error);
  void progress();
  void fail(HttpClientError error);
  void giveBack();

  Owner& owner_;
  const uintptr_t identity_;
  std::shared_ptr<NameResolver> resolver_;
  std::shared_ptr<HttpConnectionPool> pool_;
  std::string connectHost_;
  std::string host_, service_;
  HttpDestination destination_;
  // The connection taken without a lookup, whose destination then stands
  // for this one (again() asks for it), until the acquirer stops.
  std::shared_ptr<HttpConnection> reusedFrom_;
  const HttpDestination& destination() const { return reusedFrom_ ? reusedFrom_->destination() : destination_; }
  std::shared_ptr<HttpConnection> connecting_;
  bool stopped_ = false;
  // The reference the pool knows a waiting request by.
  std::weak_ptr<ConnectionAcquirer> waitingAs_;
};

}  // namespace quorvel
