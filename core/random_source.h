#pragma once

#include <cstdint>
#include <memory>
#include <random>

#include "core/time_provider.h"

namespace quorvel {

class RandomSource {
 public:
  virtual ~RandomSource() = default;
  virtual uint32_t next() = 0;
  // Whole 32-bit outputs, most significant byte first; a tail of 1-3 bytes
  // takes the leading bytes of one more output.
  virtual void fill(uint8_t* buffer, int length) = 0;
};

// MT19937 seeded from the clock: reproducible for a fixed seed, and not meant
// to be cryptographically strong.
class PseudoRandomSource : public RandomSource {
 public:
  explicit PseudoRandomSource(const std::shared_ptr<TimeProvider>& timeProvider);
  explicit PseudoRandomSource(uint32_t seed) : engine_(seed) {}

  uint32_t next() override { return static_cast<uint32_t>(engine_()); }
  void fill(uint8_t* buffer, int length) override;

 private:
  std::mt19937 engine_;
};

}  // namespace quorvel
