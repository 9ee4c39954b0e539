// MESSAGE-INTEGRITY and credential checks on arbitrary messages. The first
// input byte picks the key length (up to the 64 bytes allowed); the key comes
// next, the datagram after it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/byte_order.h"
#include "stun/integrity.h"

using quorvel::stun::Message;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::size_t keyLength = data[0] % 65;
  if (size < 1 + keyLength) return 0;
  const std::string key(reinterpret_cast<const char*>(data + 1), keyLength);
  const uint8_t* datagram = data + 1 + keyLength;
  const std::size_t datagramSize = size - 1 - keyLength;

  Message message;
  if (!message.parse(datagram, datagramSize)) {
    require(!quorvel::stun::checkMessageIntegrity(message, key));
    return 0;
  }
  (void)quorvel::stun::checkMessageIntegrity(message, key);
  (void)quorvel::stun::checkCredentials(message, "user:name", key);

  // Whatever came before, integrity and fingerprint appended now must verify,
  // unless the input already holds an integrity record (only the first counts).
  const bool hadIntegrity = message.findAttribute(Message::MessageIntegrity).has_value();
  Message signed_ = message;
  if (quorvel::stun::addMessageIntegrity(signed_, key) && quorvel::stun::addFingerprint(signed_)) {
    if (!hadIntegrity) require(quorvel::stun::checkMessageIntegrity(signed_, key));
    const bool hadFingerprint = message.findAttribute(Message::Fingerprint).has_value();
    if (!hadFingerprint && quorvel::loadBigEndian32(signed_.data() + 4) == Message::MagicCookie) {
      require(quorvel::stun::isStunMessage(signed_.data(), signed_.size(), true));
    }
  }
  return 0;
}
