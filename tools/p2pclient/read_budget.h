#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace quorvel {
namespace p2pclient {

// A token bucket for reading slowly on purpose (--rate): what is not read
// stays in the SCTP receive window, which closes and holds the sender back,
// as a slow client on a thin link would. Shared by all connections of one
// run. A rate of 0 means no limit.
class ReadBudget {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ReadBudget(std::uint64_t bytesPerSecond)
      : rate_(bytesPerSecond),
        // A tenth of a second's worth, at least one packet, so that reads
        // stay smooth without bursting far above the rate.
        capacity_(std::max<std::uint64_t>(bytesPerSecond / 10, 1200)),
        tokens_(capacity_),
        last_(Clock::now()) {}

  bool limited() const { return rate_ != 0; }

  // How many bytes may be read now, at most `wanted`.
  std::size_t available(std::size_t wanted) {
    if (!limited()) return wanted;
    refill();
    return static_cast<std::size_t>(std::min<std::uint64_t>(wanted, tokens_));
  }

  void spend(std::size_t bytes) {
    if (limited()) tokens_ -= std::min<std::uint64_t>(bytes, tokens_);
  }

 private:
  void refill() {
    const auto now = Clock::now();
    // At most a second counts: the bucket holds less than that anyway.
    const auto micros = std::min<long long>(
        std::chrono::duration_cast<std::chrono::microseconds>(now - last_).count(), 1000000);
    const std::uint64_t earned = rate_ * static_cast<std::uint64_t>(micros) / 1000000;
    if (earned == 0) return;  // keep the fraction for the next call
    tokens_ = std::min(capacity_, tokens_ + earned);
    last_ = now;
  }

  std::uint64_t rate_;
  std::uint64_t capacity_;
  std::uint64_t tokens_;
  Clock::time_point last_;
};

}  // namespace p2pclient
}  // namespace quorvel
