#pragma once

#include <memory>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "ice/check_list.h"
#include "ice/check_results.h"
#include "ice/session_link.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// Regular nomination, on the controlling side: once the best valid pair has
// no better pair still pending (or NominationWait after that), one final
// check with USE-CANDIDATE on it; its success establishes the session. Log:
// "icesession".
//   Owns: the nominated pair, its request and the wait's timer.
//   Changes: the valid pairs (drops one whose final check failed).
//   Reads: the session's state and role, the check list.
//   Calls back: the link's sendCheck, switchRole, establish and
//     checkCompletion.
class Nomination {
 public:
  Nomination(const SessionDependencies& dependencies, SessionLink& link, const CheckList& checkList,
             ValidPairs& valid);

  // A pair has been nominated and its final check has not failed.
  bool isNominating() const { return static_cast<bool>(nominated_); }
  void nominateOrWait();
  void nominate(const CandidatePairPtr& pair);
  // The result of the final check.
  void onResult(const CandidatePairPtr& pair, int error, const stun::MessagePtr& response, const SocketAddress& from,
                const SocketAddress& local);
  // The session took the other role: a controlled side nominates nothing.
  void onRoleSwitched();

  // The session is established: no more waiting.
  void stopWaiting() { waitTask_.cancel(); }
  void release();

 private:
  void onWait();

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<stun::StunAgent> agent_;
  SessionLink& link_;
  const CheckList& checkList_;
  ValidPairs& valid_;

  CandidatePairPtr nominated_;
  stun::RequestHandle request_ = 0;
  CancelableTask waitTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ice
}  // namespace quorvel
