#include "core/steady_time.h"

#include <chrono>

namespace quorvel {

// std::chrono::steady_clock is CLOCK_MONOTONIC here, the clock asio's
// steady_timer waits on, so an instant read here can be handed to it as it is.
SteadyTime steadyClockNow() {
  const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
  return SteadyTime(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(sinceStart).count()));
}

}  // namespace quorvel
