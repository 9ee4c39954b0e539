#include "sctp/stack_clock.h"

#include <sys/time.h>

#include <ctime>

namespace {

int64_t nanoseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The monotonic clock, shifted by what the wall clock read at the first call
// and by nothing that NTP does after it.
int64_t anchoredMonotonicNanoseconds() {
  static const int64_t anchor = nanoseconds(CLOCK_REALTIME) - nanoseconds(CLOCK_MONOTONIC);
  return nanoseconds(CLOCK_MONOTONIC) + anchor;
}

}  // namespace

// Replaces the C library's for the whole process; see stack_clock.h.
int gettimeofday(struct timeval* tv, void* /*timezone*/) noexcept {
  const int64_t ns = anchoredMonotonicNanoseconds();
  tv->tv_sec = static_cast<time_t>(ns / 1000000000);
  tv->tv_usec = static_cast<suseconds_t>(ns % 1000000000 / 1000);
  return 0;
}

namespace quorvel {

uint64_t stackClockMicroseconds() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_usec);
}

}  // namespace quorvel
