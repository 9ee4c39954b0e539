#pragma once

#include <cstddef>
#include <vector>

#include "core/delegate.h"
#include "ice/candidate_pair.h"

namespace quorvel {
namespace ice {

// The candidate pairs of one session, highest priority first (RFC 5245
// section 5.7). Pairs of equal priority keep the order they came in.
class CheckList {
 public:
  using Pairs = std::vector<CandidatePairPtr>;
  // The local candidate a reflexive candidate was learned through, or null.
  using BaseLookup = Delegate<CandidatePtr(const Candidate& reflexive)>;

  // Before the first pair of lower priority, after those of equal priority.
  void insert(const CandidatePairPtr& pair);
  // Server-reflexive local candidates are replaced by their base (pairs whose
  // base is unknown go), then pairs that repeat the addresses of an earlier
  // pair go. Logs each step.
  void prune(const BaseLookup& baseOf);
  // Recomputes every priority for the given role and restores the order.
  void setRole(bool controlling);
  // Drops the lowest-priority pairs beyond `count`; returns how many went.
  std::size_t limit(std::size_t count);

  // The pair with these local and remote addresses, or null.
  CandidatePairPtr find(const SocketAddress& local, const SocketAddress& remote) const;
  void remove(const CandidatePairPtr& pair);

  const Pairs& pairs() const { return pairs_; }
  Pairs::const_iterator begin() const { return pairs_.begin(); }
  Pairs::const_iterator end() const { return pairs_.end(); }
  std::size_t size() const { return pairs_.size(); }
  bool empty() const { return pairs_.empty(); }
  void clear() { pairs_.clear(); }

 private:
  Pairs pairs_;
};

}  // namespace ice
}  // namespace quorvel
