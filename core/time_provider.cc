#include "core/time_provider.h"

#include <ctime>

namespace quorvel {

// CLOCK_REALTIME rather than gettimeofday(): the SCTP layer gives the
// process a gettimeofday() on the monotonic clock for the stack's sake, and
// dates must come from the real wall clock.
Time SystemTimeProvider::now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return Time(static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u);
}

SystemTimeProvider& SystemTimeProvider::instance() {
  static SystemTimeProvider provider;
  return provider;
}

}  // namespace quorvel
