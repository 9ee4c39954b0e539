#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quorvel {
namespace stun {

// SHA-1 (FIPS 180) for MESSAGE-INTEGRITY. STUN carries its own so that the
// daemon's STUN path does not depend on the TLS library being present or
// initialised.
class Sha1Hash {
 public:
  static constexpr std::size_t DigestSize = 20;
  static constexpr std::size_t BlockSize = 64;

  Sha1Hash();

  // Each throws std::logic_error "Can't add new data to finalized hash" once
  // finalize() has been called.
  void add(const uint8_t* begin, const uint8_t* end);
  void add(std::vector<uint8_t>::const_iterator begin, std::vector<uint8_t>::const_iterator end);
  void add(const Sha1Hash& other);  // the other hash's digest

  void finalize();
  bool isFinalized() const { return finalized_; }

  // Meaningful after finalize().
  const uint8_t* digestBegin() const { return digest_; }
  const uint8_t* digestEnd() const { return digest_ + DigestSize; }

 private:
  void addByte(uint8_t byte);
  void compress();
  void checkOpen() const;

  uint32_t state_[5];
  uint32_t bitCountLow_ = 0;
  uint32_t bitCountHigh_ = 0;
  uint8_t block_[BlockSize];
  std::size_t blockFill_ = 0;
  uint8_t digest_[DigestSize];
  bool finalized_ = false;
};

// HMAC-SHA1 into out[0..20). Keys longer than one block throw
// std::logic_error "HMAC key too long": ICE passwords are far shorter, and
// refusing keeps the key path to a single pad XOR.
void hmacSha1(const uint8_t* keyBegin, const uint8_t* keyEnd, const uint8_t* messageBegin,
              const uint8_t* messageEnd, uint8_t* out);

}  // namespace stun
}  // namespace quorvel
