#include "sctp/stack_clock.h"

#include <sys/time.h>

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace quorvel {
namespace {

int64_t wallMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// The stack reads dates from it: they must be today's, not drift off it,
// and never run backwards, across second boundaries too.
TEST(StackClock, ReadsAsTheWallClockDidAndNeverGoesBack) {
  const int64_t wall = wallMicroseconds();
  const int64_t stack = static_cast<int64_t>(stackClockMicroseconds());
  EXPECT_LT(std::llabs(stack - wall), 100000) << "stack clock " << stack << ", wall clock " << wall;

  timeval previous{};
  ASSERT_EQ(0, gettimeofday(&previous, nullptr));
  int secondsCrossed = 0;
  // Two second boundaries take at most two seconds; a count alone would run
  // out first on a machine busy enough to slow each read.
  timespec start{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  const auto elapsedSeconds = [&start] {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec - start.tv_sec;
  };
  for (long i = 0; i < 2000000000L && secondsCrossed < 2 && elapsedSeconds() < 10; ++i) {
    timeval now{};
    ASSERT_EQ(0, gettimeofday(&now, nullptr));
    ASSERT_GE(now.tv_usec, 0);
    ASSERT_LT(now.tv_usec, 1000000);
    const bool forward = now.tv_sec > previous.tv_sec ||
                         (now.tv_sec == previous.tv_sec && now.tv_usec >= previous.tv_usec);
    ASSERT_TRUE(forward) << previous.tv_sec << "." << previous.tv_usec << " then " << now.tv_sec << "."
                         << now.tv_usec;
    if (now.tv_sec != previous.tv_sec) ++secondsCrossed;
    previous = now;
  }
  EXPECT_EQ(2, secondsCrossed);
}

}  // namespace
}  // namespace quorvel
