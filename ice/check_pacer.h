#pragma once

#include <deque>
#include <memory>
#include <string>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "ice/check_list.h"
#include "ice/session_candidates.h"
#include "ice/session_link.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// Forms a session's check list and paces its checks: one new check per tick
// (CheckPacing), a triggered one first, else the best waiting pair, else the
// best frozen one. Sends every check, nominating ones included. Log:
// "icesession".
//   Owns: the triggered-check queue, the check RTO, the tick and its timer.
//   Changes: the check list (fills it); a pair's state (to waiting, in
//     progress, or failed without a socket) and its request.
//   Reads: the session's candidates, state and role.
//   Calls back: the link's onCheckResult, with every check's result.
class CheckPacer {
 public:
  CheckPacer(const SessionDependencies& dependencies, SessionLink& link, const SessionCandidates& candidates,
             CheckList& checkList);

  // Forms the pairs and the RTO; checks go out with this user name and
  // integrity key (the remote side's) from now on, from the next tick.
  void start(const std::string& userName, const std::string& key);
  // Ticks when there may be something to check and no tick is due.
  void scheduleTick();
  // Returns the request's handle; a check that does not nominate also puts
  // its pair in progress.
  stun::RequestHandle send(const CandidatePairPtr& pair, bool nominate);
  void trigger(const CandidatePairPtr& pair);
  bool hasTriggered() const { return !triggered_.empty(); }

  // No more checks: the tick and the queue go, checks in flight are
  // cancelled.
  void stop();
  // As stop(), and whatever was scheduled is forgotten.
  void release();

 private:
  void formPairs();
  void onTick();
  void cancelChecks();

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<stun::StunAgent> agent_;
  std::shared_ptr<RandomSource> random_;
  SessionLink& link_;
  const SessionCandidates& candidates_;
  CheckList& checkList_;

  std::string userName_;  // remote fragment ":" local fragment
  std::string key_;       // the remote password
  std::deque<CandidatePairPtr> triggered_;
  Duration checkRto_;
  SteadyTime nextTick_;
  CancelableTask tickTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ice
}  // namespace quorvel
