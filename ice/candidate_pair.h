#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "ice/candidate.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// A local and a remote candidate checked together (RFC 5245 section 5.7).
struct CandidatePair {
  enum class State { Frozen, Waiting, InProgress, Succeeded, Failed };

  CandidatePair(CandidatePtr local, CandidatePtr remote, bool controlling);

  // Recomputes the priority for the given role (after a role change).
  void setRole(bool controlling);
  // "[local, remote]" with ports, as every log line prints a pair.
  std::string toString() const;
  // Its check may still succeed: frozen, waiting or in progress.
  bool isPending() const { return state == State::Frozen || state == State::Waiting || state == State::InProgress; }

  CandidatePtr local;
  CandidatePtr remote;
  uint64_t priority = 0;
  std::string foundation;

  // The check's bookkeeping, kept by the session.
  State state = State::Frozen;
  // The transaction of the check in flight, 0 when none.
  stun::RequestHandle request = 0;
  // The check in flight carries USE-CANDIDATE.
  bool nominating = false;
  // The controlling peer nominated this pair (we are controlled).
  bool nominatedByPeer = false;
};

using CandidatePairPtr = std::shared_ptr<CandidatePair>;

// 2^32 * min(G, D) + 2 * max(G, D) + (G > D ? 1 : 0), G the controlling
// side's candidate priority and D the controlled side's.
uint64_t pairPriority(uint32_t localPriority, uint32_t remotePriority, bool controlling);

}  // namespace ice
}  // namespace quorvel
