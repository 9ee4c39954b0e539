#pragma once

#include <cstdint>
#include <limits>

#include "core/time.h"

namespace quorvel {

// An instant on the monotonic clock (CLOCK_MONOTONIC): microseconds since an
// unspecified start, usually boot. Everything that waits or measures waiting
// uses it, because the wall clock of a board without a battery is stepped by
// years at boot and by hours later, and a wait measured on it would end at
// once or not for hours. It is a type of its own so that a wall-clock Time
// can never be handed to a timer by mistake.
class SteadyTime {
 public:
  constexpr SteadyTime() : us_(0) {}
  constexpr explicit SteadyTime(uint64_t microseconds) : us_(microseconds) {}

  constexpr uint64_t count() const { return us_; }

  // Saturating, so that "now + MaxDuration" stays "never" instead of wrapping
  // into the past.
  constexpr SteadyTime operator+(Duration d) const {
    if (d.count() >= 0) {
      const uint64_t room = std::numeric_limits<uint64_t>::max() - us_;
      return SteadyTime(static_cast<uint64_t>(d.count()) > room ? std::numeric_limits<uint64_t>::max()
                                                               : us_ + static_cast<uint64_t>(d.count()));
    }
    const uint64_t back = uint64_t{0} - static_cast<uint64_t>(d.count());
    return SteadyTime(back > us_ ? 0 : us_ - back);
  }
  constexpr SteadyTime operator-(Duration d) const {
    return d == MinDuration ? SteadyTime(std::numeric_limits<uint64_t>::max()) : *this + Duration(-d.count());
  }
  SteadyTime& operator+=(Duration d) { return *this = *this + d; }
  constexpr Duration operator-(SteadyTime o) const { return Duration(static_cast<int64_t>(us_ - o.us_)); }

  constexpr bool operator==(SteadyTime o) const { return us_ == o.us_; }
  constexpr bool operator!=(SteadyTime o) const { return us_ != o.us_; }
  constexpr bool operator<(SteadyTime o) const { return us_ < o.us_; }
  constexpr bool operator<=(SteadyTime o) const { return us_ <= o.us_; }
  constexpr bool operator>(SteadyTime o) const { return us_ > o.us_; }
  constexpr bool operator>=(SteadyTime o) const { return us_ >= o.us_; }

 private:
  uint64_t us_;
};

// "Never", for timers and deadlines.
constexpr SteadyTime MaxSteadyTime{std::numeric_limits<uint64_t>::max()};

// The system's monotonic clock, the one the reactor's timers run on.
SteadyTime steadyClockNow();

}  // namespace quorvel
