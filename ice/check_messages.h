#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/random_source.h"
#include "stun/message.h"

namespace quorvel {
namespace ice {

// What a connectivity check carries besides its credentials.
struct CheckParameters {
  std::string userName;  // remote fragment ":" local fragment
  std::string key;       // the remote password
  uint32_t priority = 0;
  bool controlling = true;
  uint64_t tieBreaker = 0;
  bool useCandidate = false;
};

// A Binding request: USERNAME, PRIORITY, ICE-CONTROLLING or ICE-CONTROLLED,
// USE-CANDIDATE when nominating, MESSAGE-INTEGRITY, FINGERPRINT. Everything
// that the receiver must act on comes before MESSAGE-INTEGRITY: receivers
// ignore attributes that follow it (RFC 5389 section 15.4), and some really
// do, which would lose PRIORITY and the nomination.
stun::MessagePtr makeCheckRequest(RandomSource& random, const CheckParameters& parameters);

// The success answer to a check: XOR-MAPPED-ADDRESS (where the check came
// from), MESSAGE-INTEGRITY keyed with the local password, FINGERPRINT.
stun::Message makeCheckSuccess(const stun::Message& request, const SocketAddress& from, const std::string& key);
// ERROR-CODE, MESSAGE-INTEGRITY keyed with the local password, FINGERPRINT.
stun::Message makeCheckError(const stun::Message& request, int code, const std::string& reason,
                             const std::string& key);

// Keeps NAT bindings of an established pair open; a Binding indication
// asks for no answer.
stun::Message makeKeepalive(RandomSource& random);

// The 4-byte PRIORITY value of a request, if it has one.
std::optional<uint32_t> readPriority(const stun::Message& message);
// The tie-breaker of ICE-CONTROLLING or ICE-CONTROLLED, if present.
std::optional<uint64_t> readTieBreaker(const stun::Message& message, uint16_t type);

// What an incoming check with a role attribute asks of the receiver (RFC
// 8445 section 7.3.1.1).
enum class RoleConflict { None, SwitchRole, Reject487 };
RoleConflict resolveRoleConflict(bool controlling, uint64_t ourTieBreaker, const stun::Message& request);

}  // namespace ice
}  // namespace quorvel
