#pragma once

#include <cstddef>
#include <memory>
#include <vector>

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

   private:
    friend class RequestWatchdog;
    // Where it is in the watchdog's list, while it is there.
    std::size_t watchSlot_ = NotWatched;
  };

  explicit RequestWatchdog(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {}
  // Once per request until remove(); adding allocates nothing once the list
  // has grown to the number of requests in flight.
  void add(const std::shared_ptr<Watched>& request);
  // Also from the request's destructor.
  void remove(Watched* request);
  std::size_t size() const { return active_.size(); }

 private:
  static constexpr std::size_t NotWatched = static_cast<std::size_t>(-1);

  void arm();
  void tick();

  std::shared_ptr<Reactor> reactor_;
  struct Entry {
    Watched* raw;
    std::weak_ptr<Watched> weak;
  };
  std::vector<Entry> active_;
  bool armed_ = false;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
