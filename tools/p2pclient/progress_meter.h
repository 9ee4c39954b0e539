#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace quorvel {
namespace p2pclient {

// The download's progress line on a terminal: bytes so far, the rate over
// the last second or so, and the time since the query, redrawn in place at
// most four times a second. Quiet when standard error is not a terminal, so
// logs and tests see only the summary lines.
class ProgressMeter {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ProgressMeter(bool enabled);

  void update(std::uint64_t bytes);

  // Clears the line, so that what follows starts clean.
  void finish();

  // "12.3 MB" (powers of 1000, like the rates)
  static std::string byteText(double bytes);

 private:
  bool enabled_;
  bool drawn_ = false;
  Clock::time_point start_, lastDraw_, windowStart_;
  std::uint64_t windowBytes_ = 0;
  double rate_ = 0;
};

}  // namespace p2pclient
}  // namespace quorvel
