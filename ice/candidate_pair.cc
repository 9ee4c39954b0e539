#include "ice/candidate_pair.h"

#include <algorithm>

namespace quorvel {
namespace ice {

uint64_t pairPriority(uint32_t localPriority, uint32_t remotePriority, bool controlling) {
  const uint64_t g = controlling ? localPriority : remotePriority;
  const uint64_t d = controlling ? remotePriority : localPriority;
  return (std::min(g, d) << 32) + 2 * std::max(g, d) + (g > d ? 1 : 0);
}

CandidatePair::CandidatePair(CandidatePtr localCandidate, CandidatePtr remoteCandidate, bool controlling)
    : local(std::move(localCandidate)),
      remote(std::move(remoteCandidate)),
      foundation(local->foundation + "/" + remote->foundation) {
  setRole(controlling);
}

void CandidatePair::setRole(bool controlling) {
  priority = pairPriority(local->priority, remote->priority, controlling);
}

std::string CandidatePair::toString() const {
  return "[" + local->address.toString() + ", " + remote->address.toString() + "]";
}

}  // namespace ice
}  // namespace quorvel
