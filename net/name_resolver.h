#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "net/socket_address.h"
#include "net/work_runner.h"

namespace quorvel {

class ResolverCache;

class NameResolver {
 public:
  struct Result {
    std::string host;
    std::string service;
    // Every address the system returned, in its order, duplicates included
    // (one per socket type); empty when the lookup failed.
    std::vector<SocketAddress> addresses;
  };
  // Runs on the reactor's thread; `found` is true when there is at least one
  // address.
  using Callback = Delegate<void(const Result& result, bool found)>;

  virtual ~NameResolver() = default;
  // Returns at once. `service` is a port number as text, one of the fixed
  // names "http", "https", "rtsp", "stun", any other service name the system
  // knows, or empty for port 0.
  virtual void resolve(const std::string& host, const std::string& service, const Callback& callback) = 0;
  // The answer when it is known without waiting (an address literal, or a
  // lookup that is still fresh), with the log lines resolve() gives it;
  // null when resolve() is needed. Reactor thread only; the answer stays
  // valid until the loop goes on.
  virtual const Result* knownAnswer(const std::string& /*host*/, const std::string& /*service*/) { return nullptr; }
};

// Looks names up with the system resolver on a worker thread and posts the
// results back to the reactor. A lookup that found addresses is reused for
// ResolverCache::Lifetime. Results still on their way when the resolver is
// destroyed are dropped.
class NetNameResolver : public NameResolver {
 public:
  struct WorkItem : Result {
    Callback callback;
  };

  explicit NetNameResolver(std::shared_ptr<Reactor> reactor);
  ~NetNameResolver() override;

  // An IPv4 or IPv6 address literal with a numeric, "http" or "https"
  // service is answered without the worker thread (and without a log line):
  // its one address, on a later turn of the loop.
  void resolve(const std::string& host, const std::string& service, const Callback& callback) override;
  const Result* knownAnswer(const std::string& host, const std::string& service) override;

  // That fast path: false when `host` is no address literal or `service` no
  // number or "http"/"https".
  static bool resolveLiteral(const std::string& host, const std::string& service, Result& result);

  // The lookup itself, as the worker runs it (blocking).
  static void lookUp(WorkItem& item);

 private:
  void handBack(const std::shared_ptr<WorkItem>& item);

  std::shared_ptr<Reactor> reactor_;
  std::unique_ptr<ResolverCache> cache_;
  // The last literal answered at once, its list kept for the next; the
  // same literal again is answered from it as it stands.
  Result literal_;
  bool literalKept_ = false;
  LifetimeToken token_ = makeLifetimeToken();
  std::unique_ptr<WorkRunner<WorkItem>> runner_;  // last: its thread uses the members above
};

}  // namespace quorvel
