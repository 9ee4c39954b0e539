// The datagram classifier, with and without the fingerprint requirement, on
// arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "stun/integrity.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  // An exact-size heap copy, so that any read past the end is caught.
  const std::vector<uint8_t> copy(data, data + size);
  const uint8_t* bytes = copy.empty() ? nullptr : copy.data();
  const bool loose = quorvel::stun::isStunMessage(bytes, size, false);
  const bool strict = quorvel::stun::isStunMessage(bytes, size, true);
  // A fingerprint never makes up for a bad header.
  if (strict && !loose) std::abort();
  return 0;
}
