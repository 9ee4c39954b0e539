#pragma once

#include <memory>
#include <vector>

#include "ice/candidate.h"
#include "ice/host_candidates.h"
#include "net/async_socket.h"
#include "net/socket_address.h"

namespace quorvel {
namespace ice {

// The address a check from this local candidate is sent from: its base, or
// its own address for a host candidate.
SocketAddress baseOf(const Candidate& candidate);

// The candidates one session knows of both sides: the hosts with their
// sockets, the local candidates (hosts, server and peer reflexive) and the
// remote ones (described and peer reflexive). Plain state, owned by the
// session: the gathering adds the hosts and server-reflexive candidates, the
// check results peer-reflexive local ones, the check answerer peer-reflexive
// remote ones. Log: "icesession".
class SessionCandidates {
 public:
  // A copy of each described candidate, the first MaxRemoteCandidates: the
  // session records its own state in its candidates.
  void setRemote(const std::vector<CandidatePtr>& described);
  void addHosts(std::vector<HostCandidate> hosts);
  void addLocal(const CandidatePtr& candidate) { locals_.push_back(candidate); }

  // A local candidate learned from the mapped address a check's answer
  // carried, with the base and preference of the checked one's host.
  CandidatePtr addPeerReflexiveLocal(const SocketAddress& mapped, const Candidate& checked);
  // A remote candidate learned from where a check came from, with the
  // priority the check carried; null when there are too many already.
  CandidatePtr addPeerReflexiveRemote(const SocketAddress& from, uint32_t priority);

  const std::vector<HostCandidate>& hosts() const { return hosts_; }
  const std::vector<CandidatePtr>& locals() const { return locals_; }
  const std::vector<CandidatePtr>& remotes() const { return remotes_; }
  // The host whose socket checks from this local candidate use, or null.
  const HostCandidate* hostFor(const Candidate& local) const;
  const HostCandidate* hostWithSocket(const std::shared_ptr<AsyncSocket>& socket) const;
  CandidatePtr localAt(const SocketAddress& address) const;
  CandidatePtr remoteAt(const SocketAddress& address) const;

  // Closes and forgets the hosts' sockets; the candidates stay.
  void closeSockets();

 private:
  std::vector<HostCandidate> hosts_;
  std::vector<CandidatePtr> locals_;
  std::vector<CandidatePtr> remotes_;
  // Numbers the foundations of peer-reflexive candidates of both sides.
  unsigned peerReflexiveCount_ = 0;
};

}  // namespace ice
}  // namespace quorvel
