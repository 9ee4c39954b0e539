#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "stun/message.h"

namespace quorvel {
namespace stun {

// Short-term credentials: the key is the password's bytes as they stand.
// Keys over 64 bytes throw std::logic_error "HMAC key too long".
bool addMessageIntegrity(Message& message, const std::string& key);
// Checks the first MESSAGE-INTEGRITY record as its sender computed it: over
// everything before the record, with a length field that ends right after
// it (so a following FINGERPRINT does not count).
bool checkMessageIntegrity(const Message& message, const std::string& key);

// USERNAME, then MESSAGE-INTEGRITY.
bool addCredentials(Message& message, const std::string& userName, const std::string& key);
// The first USERNAME must equal userName exactly, and the integrity must hold.
bool checkCredentials(const Message& message, const std::string& userName, const std::string& key);

// Always the last attribute.
bool addFingerprint(Message& message);

// Whether a received datagram is STUN at all: the cookie and the length must
// fit, and, when required, a correct FINGERPRINT must be present. This is what
// separates STUN from the other traffic on an ICE session's sockets.
bool isStunMessage(const uint8_t* data, std::size_t size, bool fingerprintRequired);

}  // namespace stun
}  // namespace quorvel
