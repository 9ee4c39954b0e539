#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "core/steady_time.h"
#include "net/name_resolver.h"
#include "net/socket_address.h"

namespace quorvel {

// Lookups that found addresses, kept for a short time: the relay service's
// host is asked for twice per relayed request (the GET and the reply POST),
// and each lookup through the worker thread and the system resolver costs
// more than the request itself. A failed lookup is never kept, so a name that
// appears later is found at once. Reactor thread only.
class ResolverCache {
 public:
  // Long enough that a busy relay loop looks its host up a few times a
  // minute; short enough that a changed address is taken up soon.
  static constexpr Duration Lifetime = Duration::seconds(10);
  // The daemon talks to a handful of hosts; past that the entry that expires
  // first makes room.
  static constexpr std::size_t Capacity = 16;

  // An answer as the resolver hands it over, with the end of its life.
  struct Entry : NameResolver::Result {
    SteadyTime expires;
  };

  // The entry for host and service while it is fresh at `now`, else null.
  std::shared_ptr<const Entry> find(const std::string& host, const std::string& service, SteadyTime now) const;
  // Keeps `addresses` (not empty) until now + Lifetime.
  void store(const std::string& host, const std::string& service, const std::vector<SocketAddress>& addresses,
             SteadyTime now);
  std::size_t size() const { return entries_.size(); }

 private:
  // Shared so that an answer on its way keeps its entry whatever is stored
  // meanwhile.
  std::vector<std::shared_ptr<const Entry>> entries_;
};

}  // namespace quorvel
