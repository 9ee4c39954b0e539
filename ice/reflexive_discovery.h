#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "core/random_source.h"
#include "core/reactor.h"
#include "ice/host_candidates.h"
#include "net/name_resolver.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// Learns the server-reflexive candidates of a session's host candidates:
// resolves the STUN server, sends a Binding request from each host socket
// to the server's address of the same family, and turns each mapped address
// into a candidate whose base is that host. Ends at the latest
// GatheringLimit after start, whatever the resolver and the server do.
class ReflexiveDiscovery : public std::enable_shared_from_this<ReflexiveDiscovery> {
 public:
  ReflexiveDiscovery(std::shared_ptr<Reactor> reactor, std::shared_ptr<stun::StunAgent> agent,
                     std::shared_ptr<NameResolver> resolver, std::shared_ptr<RandomSource> random,
                     std::string stunServer);
  ~ReflexiveDiscovery();
  ReflexiveDiscovery(const ReflexiveDiscovery&) = delete;
  ReflexiveDiscovery& operator=(const ReflexiveDiscovery&) = delete;

  // Calls `done` once, never from inside this call. The hosts' sockets are
  // only borrowed: they are let go when discovery ends.
  void start(const std::vector<HostCandidate>& hosts, const Delegate<void()>& done);
  // Ends discovery without calling `done`: cancels the lookup's use, the
  // requests and the timer.
  void cancel();

  // Replies from the server carry no FINGERPRINT, so the session must know
  // them.
  bool isServer(const SocketAddress& address) const;
  // The server-reflexive candidates, in the order the replies came.
  const std::vector<CandidatePtr>& candidates() const { return candidates_; }

 private:
  void onResolved(const NameResolver::Result& result, bool found);
  void onReply(const HostCandidate& host, stun::RequestHandle handle, int error, const stun::MessagePtr& response,
               const SocketAddress& from, const SocketAddress& local);
  void onDeadline();
  void forget(stun::RequestHandle handle);
  void finishIfDone();
  void finish();

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<stun::StunAgent> agent_;
  std::shared_ptr<NameResolver> resolver_;
  std::shared_ptr<RandomSource> random_;
  const std::string stunServer_;

  std::vector<HostCandidate> hosts_;
  std::vector<SocketAddress> servers_;
  std::vector<stun::RequestHandle> requests_;
  std::vector<CandidatePtr> candidates_;
  Delegate<void()> done_;
  SteadyTime deadline_;
  bool resolving_ = false;
  bool running_ = false;
  CancelableTask deadlineTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ice
}  // namespace quorvel
