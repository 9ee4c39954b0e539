#include "ice/check_results.h"

#include <algorithm>

#include "core/log.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

using stun::Message;

}  // namespace

CheckOutcome classifyCheckResult(const CandidatePair& pair, int error, const stun::MessagePtr& response,
                                 const SocketAddress& from, const SocketAddress& local) {
  if (error) {
    QLOG(Log, log::Debug, "Check failed: %s", pair.toString());
    return CheckOutcome::Failed;
  }
  if (response->messageClass() == Message::ErrorResponse) {
    // The peer holds the same role with the larger tie-breaker: take the
    // other one and check again (RFC 8445 section 7.2.5.1).
    if (response->getErrorCode() == 487) return CheckOutcome::RoleConflict;
    QLOG(Log, log::Debug, "Check failed with error response: %s", pair.toString());
    return CheckOutcome::Failed;
  }
  const SocketAddress sentFrom = baseOf(*pair.local);
  if (from != pair.remote->address || local != sentFrom) {
    QLOG(Log, log::Debug, "Check failed because addresses don't match: sent %s -> %s reply %s <- %s",
         sentFrom.toString(), pair.remote->address.toString(), local.toString(), from.toString());
    return CheckOutcome::Failed;
  }
  return CheckOutcome::Succeeded;
}

CandidatePairPtr validPairFor(const ValidPairs& valid, const CandidatePair& checked) {
  for (const CandidatePairPtr& pair : valid) {
    if (pair->remote->address == checked.remote->address && baseOf(*pair->local) == baseOf(*checked.local)) {
      return pair;
    }
  }
  return CandidatePairPtr();
}

CheckResults::CheckResults(SessionLink& link, SessionCandidates& candidates, CheckList& checkList,
                           ValidPairs& valid)
    : link_(link), candidates_(candidates), checkList_(checkList), valid_(valid) {}

void CheckResults::onResult(const CandidatePairPtr& pair, int error, const stun::MessagePtr& response,
                            const SocketAddress& from, const SocketAddress& local) {
  if (link_.state() != SessionState::Checking) return;
  pair->request = 0;
  switch (classifyCheckResult(*pair, error, response, from, local)) {
    case CheckOutcome::Failed:
      pair->state = CandidatePair::State::Failed;
      link_.checkCompletion();
      return;
    case CheckOutcome::RoleConflict:
      link_.switchRole();
      link_.trigger(pair);
      return;
    case CheckOutcome::Succeeded:
      onSucceeded(pair, *response);
      return;
  }
}

void CheckResults::onSucceeded(const CandidatePairPtr& pair, const Message& response) {
  const SocketAddress mapped = response.getMappedAddress();
  QLOG(Log, log::Debug, "Check succeeded: %s, mapped address is %s", pair->toString(), mapped.toString());
  pair->state = CandidatePair::State::Succeeded;
  addValidPair(pair, mapped);
  unfreezeFoundation(pair->foundation);
  if (!link_.isControlling() && pair->nominatedByPeer) {
    if (const CandidatePairPtr valid = validPairFor(valid_, *pair)) {
      link_.establish(valid);
      return;
    }
  }
  link_.nominateOrWait();
  link_.checkCompletion();
}

void CheckResults::addValidPair(const CandidatePairPtr& checked, const SocketAddress& mapped) {
  CandidatePtr local = mapped.valid() ? candidates_.localAt(mapped) : checked->local;
  if (!local) local = candidates_.addPeerReflexiveLocal(mapped, *checked->local);
  CandidatePairPtr valid = checked;
  if (local != checked->local) {
    valid = std::make_shared<CandidatePair>(local, checked->remote, link_.isControlling());
    valid->state = CandidatePair::State::Succeeded;
  }
  for (const CandidatePairPtr& known : valid_) {
    if (known->local->address == valid->local->address && known->remote->address == valid->remote->address) return;
  }
  QLOG(Log, log::Debug, "Adding valid pair %s", valid->toString());
  const auto position = std::upper_bound(
      valid_.begin(), valid_.end(), valid,
      [](const CandidatePairPtr& a, const CandidatePairPtr& b) { return a->priority > b->priority; });
  valid_.insert(position, valid);
}

void CheckResults::unfreezeFoundation(const std::string& foundation) {
  for (const CandidatePairPtr& pair : checkList_) {
    if (pair->state == CandidatePair::State::Frozen && pair->foundation == foundation) {
      QLOG(Log, log::Debug, "Unfreezing pair %s", pair->toString());
      pair->state = CandidatePair::State::Waiting;
    }
  }
}

}  // namespace ice
}  // namespace quorvel
