#include "stun/sha1.h"

#include <cstring>
#include <stdexcept>

#include "core/byte_order.h"

namespace quorvel {
namespace stun {

namespace {

// The message schedule's length and the steps that read it are one number.
constexpr int Steps = 80;

inline uint32_t rotateLeft(uint32_t value, int bits) { return (value << bits) | (value >> (32 - bits)); }

// One SHA-1 step in place: the new `a` lands in `e` and `b` is rotated, so the
// caller renames the five words for the next step.
inline void step(uint32_t a, uint32_t& b, uint32_t, uint32_t, uint32_t& e, uint32_t f, uint32_t k, uint32_t w) {
  e += rotateLeft(a, 5) + f + k + w;
  b = rotateLeft(b, 30);
}

}  // namespace

Sha1Hash::Sha1Hash()
    : state_{0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u, 0xC3D2E1F0u}, block_{}, digest_{} {}

void Sha1Hash::checkOpen() const {
  if (finalized_) throw std::logic_error("Can't add new data to finalized hash");
}

void Sha1Hash::addByte(uint8_t byte) {
  block_[blockFill_++] = byte;
  bitCountLow_ += 8;
  if (bitCountLow_ == 0) ++bitCountHigh_;
  if (blockFill_ == BlockSize) compress();
}

void Sha1Hash::add(const uint8_t* begin, const uint8_t* end) {
  checkOpen();
  // Whole blocks straight from the input when the buffer is empty: the
  // common case for STUN messages, which are hashed in one go.
  while (begin != end) {
    if (blockFill_ == 0 && static_cast<std::size_t>(end - begin) >= BlockSize) {
      std::memcpy(block_, begin, BlockSize);
      begin += BlockSize;
      const uint32_t before = bitCountLow_;
      bitCountLow_ += BlockSize * 8;
      if (bitCountLow_ < before) ++bitCountHigh_;
      compress();
    } else {
      addByte(*begin++);
    }
  }
}

void Sha1Hash::add(std::vector<uint8_t>::const_iterator begin, std::vector<uint8_t>::const_iterator end) {
  if (begin == end) {
    checkOpen();
    return;
  }
  const uint8_t* first = &*begin;
  add(first, first + (end - begin));
}

void Sha1Hash::add(const Sha1Hash& other) { add(other.digestBegin(), other.digestEnd()); }

void Sha1Hash::compress() {
  uint32_t w[Steps];
  for (int i = 0; i < 16; ++i) w[i] = loadBigEndian32(block_ + 4 * i);
  for (int i = 16; i < Steps; ++i) w[i] = rotateLeft(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);

  uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3], e = state_[4];
  // Five steps per pass with the variables renamed instead of shifted, and
  // one loop per round function: the compiler keeps all five in registers.
  for (int i = 0; i < 20; i += 5) {
    step(a, b, c, d, e, (b & c) | (~b & d), 0x5A827999u, w[i]);
    step(e, a, b, c, d, (a & b) | (~a & c), 0x5A827999u, w[i + 1]);
    step(d, e, a, b, c, (e & a) | (~e & b), 0x5A827999u, w[i + 2]);
    step(c, d, e, a, b, (d & e) | (~d & a), 0x5A827999u, w[i + 3]);
    step(b, c, d, e, a, (c & d) | (~c & e), 0x5A827999u, w[i + 4]);
  }
  for (int i = 20; i < 40; i += 5) {
    step(a, b, c, d, e, b ^ c ^ d, 0x6ED9EBA1u, w[i]);
    step(e, a, b, c, d, a ^ b ^ c, 0x6ED9EBA1u, w[i + 1]);
    step(d, e, a, b, c, e ^ a ^ b, 0x6ED9EBA1u, w[i + 2]);
    step(c, d, e, a, b, d ^ e ^ a, 0x6ED9EBA1u, w[i + 3]);
    step(b, c, d, e, a, c ^ d ^ e, 0x6ED9EBA1u, w[i + 4]);
  }
  for (int i = 40; i < 60; i += 5) {
    step(a, b, c, d, e, (b & c) | (b & d) | (c & d), 0x8F1BBCDCu, w[i]);
    step(e, a, b, c, d, (a & b) | (a & c) | (b & c), 0x8F1BBCDCu, w[i + 1]);
    step(d, e, a, b, c, (e & a) | (e & b) | (a & b), 0x8F1BBCDCu, w[i + 2]);
    step(c, d, e, a, b, (d & e) | (d & a) | (e & a), 0x8F1BBCDCu, w[i + 3]);
    step(b, c, d, e, a, (c & d) | (c & e) | (d & e), 0x8F1BBCDCu, w[i + 4]);
  }
  for (int i = 60; i < Steps; i += 5) {
    step(a, b, c, d, e, b ^ c ^ d, 0xCA62C1D6u, w[i]);
    step(e, a, b, c, d, a ^ b ^ c, 0xCA62C1D6u, w[i + 1]);
    step(d, e, a, b, c, e ^ a ^ b, 0xCA62C1D6u, w[i + 2]);
    step(c, d, e, a, b, d ^ e ^ a, 0xCA62C1D6u, w[i + 3]);
    step(b, c, d, e, a, c ^ d ^ e, 0xCA62C1D6u, w[i + 4]);
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
  state_[4] += e;
  blockFill_ = 0;
}

void Sha1Hash::finalize() {
  checkOpen();
  // The length is captured first: padding must not count towards it.
  const uint32_t low = bitCountLow_, high = bitCountHigh_;
  block_[blockFill_++] = 0x80;
  if (blockFill_ > BlockSize - 8) {
    std::memset(block_ + blockFill_, 0, BlockSize - blockFill_);
    compress();
  }
  std::memset(block_ + blockFill_, 0, BlockSize - 8 - blockFill_);
  storeBigEndian32(block_ + 56, high);
  storeBigEndian32(block_ + 60, low);
  compress();
  for (int i = 0; i < 5; ++i) storeBigEndian32(digest_ + 4 * i, state_[i]);
  finalized_ = true;
}

void hmacSha1(const uint8_t* keyBegin, const uint8_t* keyEnd, const uint8_t* messageBegin,
              const uint8_t* messageEnd, uint8_t* out) {
  const std::size_t keyLength = static_cast<std::size_t>(keyEnd - keyBegin);
  if (keyLength > Sha1Hash::BlockSize) throw std::logic_error("HMAC key too long");

  uint8_t innerPad[Sha1Hash::BlockSize];
  uint8_t outerPad[Sha1Hash::BlockSize];
  std::memset(innerPad, 0x36, sizeof innerPad);
  std::memset(outerPad, 0x5C, sizeof outerPad);
  for (std::size_t i = 0; i < keyLength; ++i) {
    innerPad[i] ^= keyBegin[i];
    outerPad[i] ^= keyBegin[i];
  }

  Sha1Hash inner;
  inner.add(innerPad, innerPad + sizeof innerPad);
  inner.add(messageBegin, messageEnd);
  inner.finalize();

  Sha1Hash outer;
  outer.add(outerPad, outerPad + sizeof outerPad);
  outer.add(inner);
  outer.finalize();
  std::memcpy(out, outer.digestBegin(), Sha1Hash::DigestSize);
}

}  // namespace stun
}  // namespace quorvel
