#pragma once

#include <cstdint>

namespace quorvel {
namespace stun {

// The zlib / IEEE 802.3 CRC-32 that FINGERPRINT is made of. An empty range
// gives 0.
uint32_t crc32(const uint8_t* begin, const uint8_t* end);

}  // namespace stun
}  // namespace quorvel
