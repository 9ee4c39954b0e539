#pragma once

#include <memory>
#include <unordered_map>

#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"

namespace quorvel {

// One timer for every request of a client, ticking while any is active: a
// timer per request would stay queued in the loop for its full minute after
// the request has gone, which at thousands of requests a second adds up.
class RequestWatchdog : public std::enable_shared_from_this<RequestWatchdog> {
 public:
  static constexpr Duration Tick = Duration::seconds(1);

  // What the watchdog looks at every tick.
  class Watched {
   public:
    // Ends the request when it has made no progress for too long.
    virtual void checkTimeout() = 0;

   protected:
    ~Watched() = default;
  };

  explicit RequestWatchdog(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {}
  void add(const std::shared_ptr<Watched>& request) {
    active_.emplace(request.get(), request);
    arm();
  }
  // Also from the request's destructor.
  void remove(Watched* request) { active_.erase(request); }

 private:
  void arm();
  void tick();

  std::shared_ptr<Reactor> reactor_;
  std::unordered_map<Watched*, std::weak_ptr<Watched>> active_;
  bool armed_ = false;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
