#pragma once

#include <cstdint>

namespace quorvel {

// Network (big-endian) reads and writes of unaligned integers. Every wire
// format goes through these so that byte order is right on the little-endian
// development machines and on the big-endian device alike, with no swaps
// scattered through the code.
inline uint16_t loadBigEndian16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

inline uint32_t loadBigEndian32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

inline uint64_t loadBigEndian64(const uint8_t* p) {
  return (uint64_t{loadBigEndian32(p)} << 32) | loadBigEndian32(p + 4);
}

inline void storeBigEndian16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

inline void storeBigEndian32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

inline void storeBigEndian64(uint8_t* p, uint64_t v) {
  storeBigEndian32(p, static_cast<uint32_t>(v >> 32));
  storeBigEndian32(p + 4, static_cast<uint32_t>(v));
}

}  // namespace quorvel
