#include "core/random_source.h"

namespace quorvel {

PseudoRandomSource::PseudoRandomSource(const std::shared_ptr<TimeProvider>& timeProvider)
    : engine_(static_cast<uint32_t>(timeProvider->now().count())) {}

void PseudoRandomSource::fill(uint8_t* buffer, int length) {
  for (int i = 0; i < length; i += 4) {
    const uint32_t value = next();
    for (int b = 0; b < 4 && i + b < length; ++b) {
      buffer[i + b] = static_cast<uint8_t>(value >> (24 - 8 * b));
    }
  }
}

}  // namespace quorvel
