#pragma once

#include <memory>

#include "core/delegate.h"
#include "ice/reflexive_discovery.h"
#include "ice/session_candidates.h"
#include "ice/session_link.h"
#include "ice/session_socket.h"

namespace quorvel {
namespace ice {

// Gathers one session's local candidates: binds a host candidate to each
// usable interface address, then learns their server-reflexive candidates
// (ReflexiveDiscovery). Log: "icesession".
//   Owns: the discovery.
//   Changes: the session's hosts and local candidates (adds to them).
//   Calls back: the receiver of the hosts' datagrams and `done`.
class CandidateGathering {
 public:
  CandidateGathering(const SessionDependencies& dependencies, SessionCandidates& candidates);

  // Binds the hosts, their sockets receiving into `receiver`, and starts
  // the discovery; `done` comes once it has ended, never from inside this
  // call.
  void start(const SessionSocket::Receiver& receiver, const Delegate<void()>& done);
  // Adds what the discovery found to the local candidates.
  void finish();
  // Ends the discovery without `done`.
  void cancel();

  // Replies from the STUN server carry no FINGERPRINT, unlike the peer's.
  bool isServer(const SocketAddress& address) const { return discovery_ && discovery_->isServer(address); }

 private:
  SessionDependencies deps_;
  SessionCandidates& candidates_;
  std::shared_ptr<ReflexiveDiscovery> discovery_;
};

}  // namespace ice
}  // namespace quorvel
