#pragma once

#include "core/time.h"

namespace quorvel {

// The source of "now" for every timer and timestamp, so that tests can drive
// time by hand.
class TimeProvider {
 public:
  virtual ~TimeProvider() = default;
  virtual Time now() = 0;
};

class SystemTimeProvider : public TimeProvider {
 public:
  Time now() override;

  // The process-wide instance that log lines take their time from.
  static SystemTimeProvider& instance();
};

}  // namespace quorvel
