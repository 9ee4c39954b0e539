#include "ice/session_candidates.h"

#include <algorithm>
#include <string>

#include "core/log.h"
#include "ice/session_timing.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

CandidatePtr findAt(const std::vector<CandidatePtr>& candidates, const SocketAddress& address) {
  for (const CandidatePtr& candidate : candidates) {
    if (candidate->address == address) return candidate;
  }
  return CandidatePtr();
}

}  // namespace

SocketAddress baseOf(const Candidate& candidate) {
  return candidate.base.valid() ? candidate.base : candidate.address;
}

void SessionCandidates::setRemote(const std::vector<CandidatePtr>& described) {
  remotes_.clear();
  for (const CandidatePtr& candidate : described) {
    if (remotes_.size() >= MaxRemoteCandidates) break;
    remotes_.push_back(std::make_shared<Candidate>(*candidate));
  }
}

void SessionCandidates::addHosts(std::vector<HostCandidate> hosts) {
  hosts_ = std::move(hosts);
  for (const HostCandidate& host : hosts_) locals_.push_back(host.candidate);
}

CandidatePtr SessionCandidates::addPeerReflexiveLocal(const SocketAddress& mapped, const Candidate& checked) {
  QLOG(Log, log::Debug, "Creating peer reflexive candidate for %s", mapped.toString());
  const HostCandidate* host = hostFor(checked);
  const uint32_t preference = host ? host->localPreference : 0;
  const CandidatePtr local = std::make_shared<Candidate>(CandidateType::PeerReflexive, mapped,
                                                         computePriority(CandidateType::PeerReflexive, preference),
                                                         "p" + std::to_string(++peerReflexiveCount_), baseOf(checked));
  locals_.push_back(local);
  return local;
}

CandidatePtr SessionCandidates::addPeerReflexiveRemote(const SocketAddress& from, uint32_t priority) {
  // Its priority is the one the check carries (RFC 5245 section 7.2.1.3).
  QLOG(Log, log::Debug, "Creating peer reflexive candidate for %s", from.toString());
  const CandidatePtr remote = std::make_shared<Candidate>(CandidateType::PeerReflexive, from, priority,
                                                          "rp" + std::to_string(++peerReflexiveCount_), from);
  if (remotes_.size() >= MaxRemoteCandidates) return CandidatePtr();
  remotes_.push_back(remote);
  return remote;
}

const HostCandidate* SessionCandidates::hostFor(const Candidate& local) const {
  const SocketAddress base = baseOf(local);
  for (const HostCandidate& host : hosts_) {
    if (host.candidate->address == base) return &host;
  }
  return nullptr;
}

const HostCandidate* SessionCandidates::hostWithSocket(const std::shared_ptr<AsyncSocket>& socket) const {
  const auto host = std::find_if(hosts_.begin(), hosts_.end(),
                                 [&](const HostCandidate& h) { return h.socket->socket() == socket; });
  return host == hosts_.end() ? nullptr : &*host;
}

CandidatePtr SessionCandidates::localAt(const SocketAddress& address) const { return findAt(locals_, address); }

CandidatePtr SessionCandidates::remoteAt(const SocketAddress& address) const { return findAt(remotes_, address); }

void SessionCandidates::closeSockets() {
  for (HostCandidate& host : hosts_) host.socket->close();
  hosts_.clear();
}

}  // namespace ice
}  // namespace quorvel
