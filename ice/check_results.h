#pragma once

#include <string>
#include <vector>

#include "ice/check_list.h"
#include "ice/session_candidates.h"
#include "ice/session_link.h"
#include "stun/message.h"

namespace quorvel {
namespace ice {

// The pairs whose checks succeeded, highest priority first.
using ValidPairs = std::vector<CandidatePairPtr>;

// What the answer to a check (or its absence) means for its pair.
enum class CheckOutcome { Succeeded, Failed, RoleConflict };
// Logs why a check failed; a success must mirror the check's addresses.
CheckOutcome classifyCheckResult(const CandidatePair& pair, int error, const stun::MessagePtr& response,
                                 const SocketAddress& from, const SocketAddress& local);

// The valid pair that a check on `checked` led to, or null.
CandidatePairPtr validPairFor(const ValidPairs& valid, const CandidatePair& checked);

// Takes the results of the ordinary (not nominating) checks: a pair that
// succeeded becomes valid, unfreezes its foundation, and may let the session
// nominate or, when controlled and the peer nominated it, establish. Log:
// "icesession".
//   Owns: nothing.
//   Changes: the checked pair's state and request; frozen pairs of its
//     foundation (to waiting); the valid pairs and the local candidates (peer
//     reflexive) it adds to.
//   Reads: the session's state and role.
//   Calls back: the link's switchRole, trigger, establish, nominateOrWait and
//     checkCompletion.
class CheckResults {
 public:
  CheckResults(SessionLink& link, SessionCandidates& candidates, CheckList& checkList, ValidPairs& valid);

  void onResult(const CandidatePairPtr& pair, int error, const stun::MessagePtr& response, const SocketAddress& from,
                const SocketAddress& local);

 private:
  void onSucceeded(const CandidatePairPtr& pair, const stun::Message& response);
  void addValidPair(const CandidatePairPtr& checked, const SocketAddress& mapped);
  void unfreezeFoundation(const std::string& foundation);

  SessionLink& link_;
  SessionCandidates& candidates_;
  CheckList& checkList_;
  ValidPairs& valid_;
};

}  // namespace ice
}  // namespace quorvel
