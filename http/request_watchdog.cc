#include "http/request_watchdog.h"

namespace quorvel {

constexpr Duration RequestWatchdog::Tick;

void RequestWatchdog::add(const std::shared_ptr<Watched>& request) {
  if (request->watchSlot_ != NotWatched) return;
  request->watchSlot_ = active_.size();
  active_.push_back(Entry{request.get(), request});
  arm();
}

void RequestWatchdog::remove(Watched* request) {
  const std::size_t slot = request->watchSlot_;
  if (slot == NotWatched) return;
  request->watchSlot_ = NotWatched;
  // The last entry takes the freed slot.
  if (slot + 1 != active_.size()) {
    active_[slot] = std::move(active_.back());
    active_[slot].raw->watchSlot_ = slot;
  }
  active_.pop_back();
}

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
  for (const Entry& entry : active_) requests.push_back(entry.weak);
  for (const auto& weak : requests) {
    if (auto request = weak.lock()) request->checkTimeout();
  }
  arm();
}

}  // namespace quorvel
