#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "core/time.h"

namespace quorvel {
namespace testing {

// How NTP moves a board's wall clock under a running daemon: nothing, back by
// an hour (the board's clock ran fast), forward by years (it booted with no
// date). Timer users are run once per row with the step made mid-way, and
// must behave exactly as in the first row.
struct WallClockStep {
  const char* name;
  Duration by;
};

inline const std::vector<WallClockStep>& wallClockSteps() {
  static const std::vector<WallClockStep> steps = {
      {"no step", Duration()},
      {"an hour back", Duration::seconds(-3600)},
      {"2000 days forward", Duration::seconds(86400) * 2000},
  };
  return steps;
}

// Runs `trace` (a fresh run of a timer user that makes the given step of the
// wall clock mid-way and returns what it saw: times, counts, outcomes) once
// per step, and expects every run to see what the run without a step saw.
inline void expectNoWallClockStepMatters(const std::function<std::vector<int64_t>(Duration step)>& trace) {
  const std::vector<int64_t> reference = trace(Duration());
  ASSERT_FALSE(reference.empty());
  for (const WallClockStep& step : wallClockSteps()) EXPECT_EQ(trace(step.by), reference) << step.name;
}

}  // namespace testing
}  // namespace quorvel
