#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/lifetime_ref.h"
#include "core/reactor.h"
#include "http/http_connection.h"
#include "net/async_socket.h"

namespace quorvel {

// The HTTP client's connections made through one socket factory: free ones
// kept open for reuse, used ones lent to requests, and the requests waiting
// while `limit` connections exist. Log: "httppool".
class HttpConnectionPool : public std::enable_shared_from_this<HttpConnectionPool> {
 public:
  static constexpr unsigned DefaultLimit = 32;

  // The connection is either open (reused) or Unconnected (new: the
  // requester connects it to one of the destination's addresses).
  using ConnectionCallback = Delegate<void(const std::shared_ptr<HttpConnection>& connection)>;

  // `limit` 0 means DefaultLimit.
  HttpConnectionPool(std::shared_ptr<Reactor> reactor, std::shared_ptr<AsyncSocketFactory> factory,
                     std::shared_ptr<BufferChainAllocator> allocator, unsigned limit);
  ~HttpConnectionPool();
  HttpConnectionPool(const HttpConnectionPool&) = delete;
  HttpConnectionPool& operator=(const HttpConnectionPool&) = delete;

  // The connection when one can be had at once, with no callback made for
  // that usual case; else null, and the requester waits with
  // waitForConnection(): called back when one is released. A waiting
  // request whose `owner` has expired by then is dropped.
  std::shared_ptr<HttpConnection> tryConnection(const HttpDestination& destination);
  // A shortcut for a requester whose lookup would only repeat an earlier
  // one: the open free connection most recently made or released for the
  // same connect host and default service, as its place in the free list
  // (null when requests are waiting, or the pool's log writes debug lines,
  // which the full way gives). The requester checks its address still
  // resolves, then takes it, before the pool is used for anything else.
  const std::shared_ptr<HttpConnection>* freeFor(const std::string& connectHost,
                                                 const std::string& defaultService) const;
  // Moves that connection to the used list, as satisfying a request would.
  std::shared_ptr<HttpConnection> take(const std::shared_ptr<HttpConnection>* slot);
  void waitForConnection(const HttpDestination& destination, const WeakLifetimeToken& owner,
                         const ConnectionCallback& callback);
  // A request of `owner` that still waits is forgotten.
  void withdrawRequest(const WeakLifetimeToken& owner);
  // Every connection handed out comes back here exactly once; the release
  // itself runs later on the reactor. With `close` (or when it is found
  // closed) the connection is dropped, otherwise kept for reuse.
  void releaseConnection(const std::shared_ptr<HttpConnection>& connection, bool close);

  unsigned limit() const { return limit_; }
  std::size_t freeCount() const { return free_.size(); }
  std::size_t usedCount() const { return used_.size(); }
  std::size_t waitingCount() const { return waiting_.size(); }

 private:
  struct Waiting {
    HttpDestination destination;
    WeakLifetimeToken owner;
    ConnectionCallback callback;
  };

  struct Release {
    std::shared_ptr<HttpConnection> connection;
    bool close;
  };

  // A connection for the destination, or null when the limit is reached.
  std::shared_ptr<HttpConnection> satisfy(const HttpDestination& destination);
  void runReleases();
  void release(const std::shared_ptr<HttpConnection>& connection, bool close);
  void serveWaiting();
  void watchIdleClose(const std::shared_ptr<HttpConnection>& connection);
  void watchIdle(const std::shared_ptr<HttpConnection>& connection);
  void onIdleClosed(HttpConnection* closed);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<AsyncSocketFactory> factory_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  const unsigned limit_;
  // Oldest first: reuse takes the most recently freed, eviction the oldest.
  // Vectors: a handful of connections at most, and moving one between the
  // lists on every request allocates nothing once they have grown.
  std::vector<std::shared_ptr<HttpConnection>> free_;
  std::vector<std::shared_ptr<HttpConnection>> used_;
  std::deque<Waiting> waiting_;
  // Releases scheduled and not run yet, in order; one posted task runs all
  // that are there when it comes. Two lists, swapped, so that neither
  // allocates once grown.
  std::vector<Release> releases_;
  std::vector<Release> releasing_;
  bool releasesPosted_ = false;
  LifetimeAnchor<HttpConnectionPool> anchor_{this};
};

}  // namespace quorvel
