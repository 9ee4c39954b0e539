#include "ice/check_list.h"

#include <algorithm>

#include "core/log.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icechecklist");

bool higher(const CandidatePairPtr& a, const CandidatePairPtr& b) { return a->priority > b->priority; }

}  // namespace

void CheckList::insert(const CandidatePairPtr& pair) {
  pairs_.insert(std::upper_bound(pairs_.begin(), pairs_.end(), pair, higher), pair);
}

void CheckList::prune(const BaseLookup& baseOf) {
  for (auto it = pairs_.begin(); it != pairs_.end();) {
    CandidatePair& pair = **it;
    if (pair.local->type != CandidateType::ServerReflexive) {
      ++it;
      continue;
    }
    const CandidatePtr base = baseOf(*pair.local);
    if (!base) {
      QLOG(Log, log::Debug, "Pruning invalid pair %s", pair.toString());
      it = pairs_.erase(it);
      continue;
    }
    QLOG(Log, log::Debug, "Replacing local part of %s with %s", pair.toString(), base->address.toString());
    pair.local = base;
    ++it;
  }
  for (std::size_t i = 0; i < pairs_.size(); ++i) {
    for (std::size_t j = i + 1; j < pairs_.size();) {
      if (pairs_[j]->local->address == pairs_[i]->local->address &&
          pairs_[j]->remote->address == pairs_[i]->remote->address) {
        QLOG(Log, log::Debug, "Pruning duplicate pair %s", pairs_[j]->toString());
        pairs_.erase(pairs_.begin() + static_cast<std::ptrdiff_t>(j));
      } else {
        ++j;
      }
    }
  }
}

void CheckList::setRole(bool controlling) {
  for (const CandidatePairPtr& pair : pairs_) pair->setRole(controlling);
  std::stable_sort(pairs_.begin(), pairs_.end(), higher);
}

std::size_t CheckList::limit(std::size_t count) {
  if (pairs_.size() <= count) return 0;
  const std::size_t dropped = pairs_.size() - count;
  pairs_.resize(count);
  return dropped;
}

CandidatePairPtr CheckList::find(const SocketAddress& local, const SocketAddress& remote) const {
  for (const CandidatePairPtr& pair : pairs_) {
    if (pair->local->address == local && pair->remote->address == remote) return pair;
  }
  return CandidatePairPtr();
}

void CheckList::remove(const CandidatePairPtr& pair) {
  pairs_.erase(std::remove(pairs_.begin(), pairs_.end(), pair), pairs_.end());
}

}  // namespace ice
}  // namespace quorvel
