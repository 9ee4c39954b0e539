#include "stun/integrity.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "core/byte_order.h"
#include "stun/crc32.h"
#include "stun/sha1.h"

namespace quorvel {
namespace stun {

namespace {

constexpr std::size_t IntegritySize = 20;
constexpr std::size_t IntegrityRecordSize = 4 + IntegritySize;
constexpr uint32_t FingerprintXor = 0x5354554Eu;  // "STUN"

const uint8_t* keyBytes(const std::string& key) { return reinterpret_cast<const uint8_t*>(key.data()); }

// Avoids an early exit that would tell an attacker how many leading bytes of a
// forged digest were right.
bool equalDigests(const uint8_t* a, const uint8_t* b) {
  uint8_t difference = 0;
  for (std::size_t i = 0; i < IntegritySize; ++i) difference |= a[i] ^ b[i];
  return difference == 0;
}

}  // namespace

bool addMessageIntegrity(Message& message, const std::string& key) {
  if (!message.valid()) return false;
  const std::size_t size = message.size();
  if (size - Message::HeaderSize + IntegrityRecordSize > 0xFFFF) return false;
  message.setLengthField(static_cast<uint16_t>(size - Message::HeaderSize + IntegrityRecordSize));
  uint8_t digest[IntegritySize];
  hmacSha1(keyBytes(key), keyBytes(key) + key.size(), message.data(), message.data() + size, digest);
  return message.addAttribute(Message::MessageIntegrity, digest, digest + IntegritySize);
}

bool checkMessageIntegrity(const Message& message, const std::string& key) {
  const std::optional<Attribute> record = message.findAttribute(Message::MessageIntegrity);
  if (!record || record->value.size() != IntegritySize) return false;
  const std::size_t covered = record->offset;
  std::vector<uint8_t> copy(message.data(), message.data() + covered);
  storeBigEndian16(copy.data() + 2, static_cast<uint16_t>(covered - Message::HeaderSize + IntegrityRecordSize));
  uint8_t digest[IntegritySize];
  hmacSha1(keyBytes(key), keyBytes(key) + key.size(), copy.data(), copy.data() + copy.size(), digest);
  return equalDigests(digest, record->value.begin);
}

bool addCredentials(Message& message, const std::string& userName, const std::string& key) {
  return message.addStringAttribute(Message::Username, userName) && addMessageIntegrity(message, key);
}

bool checkCredentials(const Message& message, const std::string& userName, const std::string& key) {
  const std::optional<Attribute> record = message.findAttribute(Message::Username);
  if (!record || record->value.size() != userName.size() ||
      !std::equal(record->value.begin, record->value.end, keyBytes(userName))) {
    return false;
  }
  return checkMessageIntegrity(message, key);
}

bool addFingerprint(Message& message) {
  const std::size_t size = message.size();
  const uint8_t zero[4] = {};
  if (!message.addAttribute(Message::Fingerprint, zero, zero + 4)) return false;
  const uint32_t crc = crc32(message.data(), message.data() + size);
  storeBigEndian32(message.mutableData() + message.size() - 4, crc ^ FingerprintXor);
  return true;
}

bool isStunMessage(const uint8_t* data, std::size_t size, bool fingerprintRequired) {
  if (size < Message::HeaderSize || loadBigEndian32(data + 4) != Message::MagicCookie ||
      loadBigEndian16(data + 2) > size - Message::HeaderSize) {
    return false;
  }
  if (!fingerprintRequired) return true;

  // Over the whole datagram, not only the declared length: the fingerprint
  // must be found where a sender would have put it.
  std::size_t offset = Message::HeaderSize;
  if (offset == size) return false;
  for (;;) {
    if (size - offset < 4) return false;
    const uint16_t type = loadBigEndian16(data + offset);
    const std::size_t length = loadBigEndian16(data + offset + 2);
    if (length > size - offset - 4) return false;
    if (type == Message::Fingerprint) {
      if (length != 4) return false;
      const uint32_t crc = crc32(data, data + offset);
      return (crc ^ FingerprintXor) == loadBigEndian32(data + offset + 4);
    }
    const std::size_t next = offset + 4 + ((length + 3) & ~std::size_t{3});
    if (next >= size) return false;
    offset = next;
  }
}

}  // namespace stun
}  // namespace quorvel
