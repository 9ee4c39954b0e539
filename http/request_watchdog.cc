#include "http/request_watchdog.h"

#include <vector>

namespace quorvel {

constexpr Duration RequestWatchdog::Tick;

void RequestWatchdog::arm() {
  if (armed_ || active_.empty()) return;
  armed_ = true;
  std::weak_ptr<RequestWatchdog> self = shared_from_this();
  reactor_->scheduleAfter(token_, Tick, [self]() {
    if (auto watchdog = self.lock()) watchdog->tick();
  });
}

void RequestWatchdog::tick() {
  armed_ = false;
  // A request that times out may take others with it.
  std::vector<std::weak_ptr<Watched>> requests;
  requests.reserve(active_.size());
  for (const auto& entry : active_) requests.push_back(entry.second);
  for (const auto& weak : requests) {
    if (auto request = weak.lock()) request->checkTimeout();
  }
  arm();
}

}  // namespace quorvel
