#include "ice/check_pacer.h"

#include <netinet/in.h>

#include <algorithm>
#include <vector>

#include "core/log.h"
#include "ice/check_messages.h"
#include "ice/session_timing.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

// Remote candidates that no pair of ours could ever reach: link-local IPv6
// needs a scope the peer's text cannot carry, and port 0 is no endpoint.
bool isReachableRemote(const Candidate& candidate) {
  const SocketAddress& address = candidate.address;
  if (address.port() == 0) return false;
  if (address.family() == AF_INET6) {
    const uint8_t* bytes = address.addressBytes();
    return !(bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80);
  }
  return address.family() == AF_INET;
}

}  // namespace

CheckPacer::CheckPacer(const SessionDependencies& dependencies, SessionLink& link,
                       const SessionCandidates& candidates, CheckList& checkList)
    : reactor_(dependencies.reactor),
      agent_(dependencies.agent),
      random_(dependencies.random),
      link_(link),
      candidates_(candidates),
      checkList_(checkList),
      tickTask_([this]() { onTick(); }) {}

void CheckPacer::start(const std::string& userName, const std::string& key) {
  userName_ = userName;
  key_ = key;
  formPairs();
  checkRto_ = checkRto(checkList_.size());
  nextTick_ = reactor_->steadyNow();
}

void CheckPacer::formPairs() {
  for (const CandidatePtr& local : candidates_.locals()) {
    for (const CandidatePtr& remote : candidates_.remotes()) {
      if (remote->address.family() != local->address.family() || !isReachableRemote(*remote)) continue;
      checkList_.insert(std::make_shared<CandidatePair>(local, remote, link_.isControlling()));
    }
  }
  checkList_.prune([this](const Candidate& reflexive) {
    const HostCandidate* host = candidates_.hostFor(reflexive);
    return host ? host->candidate : CandidatePtr();
  });
  checkList_.limit(MaxPairs);
  // The first pair of each foundation starts waiting, the rest frozen
  // (RFC 5245 section 5.7.4).
  std::vector<std::string> seen;
  for (const CandidatePairPtr& pair : checkList_) {
    if (std::find(seen.begin(), seen.end(), pair->foundation) != seen.end()) continue;
    seen.push_back(pair->foundation);
    pair->state = CandidatePair::State::Waiting;
  }
}

void CheckPacer::scheduleTick() {
  if (link_.state() != SessionState::Checking || tickTask_.isStarted()) return;
  const SteadyTime now = reactor_->steadyNow();
  reactor_->scheduleAt(token_, std::max(now, nextTick_), tickTask_.start());
}

void CheckPacer::onTick() {
  if (link_.state() != SessionState::Checking) return;
  while (!triggered_.empty() && triggered_.front()->state != CandidatePair::State::Waiting) triggered_.pop_front();
  CandidatePairPtr pair;
  if (!triggered_.empty()) {
    pair = triggered_.front();
    triggered_.pop_front();
    QLOG(Log, log::Debug, "Performing triggered check");
  }
  if (!pair) {
    for (const CandidatePairPtr& candidate : checkList_) {
      if (candidate->state == CandidatePair::State::Waiting) {
        pair = candidate;
        QLOG(Log, log::Debug, "Performing check on waiting pair");
        break;
      }
    }
  }
  if (!pair) {
    for (const CandidatePairPtr& candidate : checkList_) {
      if (candidate->state == CandidatePair::State::Frozen) {
        pair = candidate;
        QLOG(Log, log::Debug, "Unfreezing pair %s", pair->toString());
        pair->state = CandidatePair::State::Waiting;
        QLOG(Log, log::Debug, "Performing check on frozen pair");
        break;
      }
    }
  }
  // Nothing to check: the timer rests until a triggered check wakes it.
  if (!pair) return;
  nextTick_ = reactor_->steadyNow() + CheckPacing;
  send(pair, false);
  scheduleTick();
}

stun::RequestHandle CheckPacer::send(const CandidatePairPtr& pair, bool nominate) {
  QLOG(Log, log::Debug, "Performing check: %s", pair->toString());
  const HostCandidate* host = candidates_.hostFor(*pair->local);
  if (!host) {
    pair->state = CandidatePair::State::Failed;
    return 0;
  }
  CheckParameters parameters;
  parameters.userName = userName_;
  parameters.key = key_;
  // The priority a peer-reflexive candidate learned from this check would
  // have (RFC 5245 section 7.1.2.1).
  parameters.priority = computePriority(CandidateType::PeerReflexive, host->localPreference);
  parameters.controlling = link_.isControlling();
  parameters.tieBreaker = link_.tieBreaker();
  parameters.useCandidate = nominate;
  const stun::MessagePtr request = makeCheckRequest(*random_, parameters);

  const std::weak_ptr<SessionLink> weak = link_.weakLink();
  const stun::RequestHandle handle = agent_->sendRequest(
      request, host->socket->socket(), pair->remote->address, checkRto_, CheckTimeLimit, key_,
      [weak, pair, nominate](int error, const stun::MessagePtr& response, const SocketAddress& from,
                             const SocketAddress& local) {
        if (const std::shared_ptr<SessionLink> link = weak.lock()) {
          link->onCheckResult(pair, nominate, error, response, from, local);
        }
      });
  if (!nominate) {
    pair->request = handle;
    pair->state = CandidatePair::State::InProgress;
  }
  return handle;
}

void CheckPacer::trigger(const CandidatePairPtr& pair) {
  if (pair->request) agent_->cancel(pair->request);
  pair->request = 0;
  pair->state = CandidatePair::State::Waiting;
  if (std::find(triggered_.begin(), triggered_.end(), pair) == triggered_.end()) triggered_.push_back(pair);
  scheduleTick();
}

void CheckPacer::stop() {
  tickTask_.cancel();
  triggered_.clear();
  cancelChecks();
}

void CheckPacer::release() {
  stop();
  token_ = makeLifetimeToken();
}

void CheckPacer::cancelChecks() {
  if (!agent_) return;
  for (const CandidatePairPtr& pair : checkList_) {
    if (pair->request) agent_->cancel(pair->request);
    pair->request = 0;
  }
}

}  // namespace ice
}  // namespace quorvel
