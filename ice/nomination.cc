#include "ice/nomination.h"

#include <algorithm>

#include "core/log.h"
#include "ice/session_timing.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

}  // namespace

Nomination::Nomination(const SessionDependencies& dependencies, SessionLink& link, const CheckList& checkList,
                       ValidPairs& valid)
    : reactor_(dependencies.reactor),
      agent_(dependencies.agent),
      link_(link),
      checkList_(checkList),
      valid_(valid),
      waitTask_([this]() { onWait(); }) {}

void Nomination::nominateOrWait() {
  if (link_.state() != SessionState::Checking || !link_.isControlling() || nominated_ || valid_.empty()) return;
  const uint64_t best = valid_.front()->priority;
  const bool betterPending = std::any_of(checkList_.begin(), checkList_.end(), [&](const CandidatePairPtr& pair) {
    return pair->isPending() && pair->priority > best;
  });
  if (!betterPending) {
    nominate(valid_.front());
    return;
  }
  // Better pairs may still come through, but pairs that never will (private
  // addresses across NATs) would hold the session for their whole check
  // time: wait a little, then take the best pair there is.
  if (!waitTask_.isStarted()) reactor_->scheduleAfter(token_, NominationWait, waitTask_.start());
}

void Nomination::onWait() {
  if (link_.state() == SessionState::Checking && link_.isControlling() && !nominated_ && !valid_.empty()) {
    nominate(valid_.front());
  }
}

void Nomination::nominate(const CandidatePairPtr& pair) {
  waitTask_.cancel();
  nominated_ = pair;
  QLOG(Log, log::Info, "Sending final check for nominated pair %s", pair->toString());
  request_ = link_.sendCheck(pair, true);
}

void Nomination::onResult(const CandidatePairPtr& pair, int error, const stun::MessagePtr& response,
                          const SocketAddress& from, const SocketAddress& local) {
  if (link_.state() != SessionState::Checking) return;
  request_ = 0;
  switch (classifyCheckResult(*pair, error, response, from, local)) {
    case CheckOutcome::Failed:
      QLOG(Log, log::Warning, "Nominated pair check failed");
      valid_.erase(std::remove(valid_.begin(), valid_.end(), pair), valid_.end());
      nominated_.reset();
      nominateOrWait();
      link_.checkCompletion();
      return;
    case CheckOutcome::RoleConflict:
      link_.switchRole();
      nominated_.reset();
      return;
    case CheckOutcome::Succeeded:
      QLOG(Log, log::Info, "Nominated pair check succeeded");
      link_.establish(pair);
      return;
  }
}

void Nomination::onRoleSwitched() {
  if (link_.isControlling()) {
    nominateOrWait();
    return;
  }
  waitTask_.cancel();
  if (request_) agent_->cancel(request_);
  request_ = 0;
  nominated_.reset();
}

void Nomination::release() {
  waitTask_.cancel();
  token_ = makeLifetimeToken();
  if (request_ && agent_) agent_->cancel(request_);
  request_ = 0;
  nominated_.reset();
}

}  // namespace ice
}  // namespace quorvel
