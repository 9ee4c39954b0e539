#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "net/socket_address.h"

namespace quorvel {
namespace ice {

// The numeric values index the type-preference table.
enum class CandidateType : int { Host = 0, ServerReflexive = 1, PeerReflexive = 2, Relayed = 3 };

// One transport candidate of a single-component, UDP-only ICE session; the
// component (1) and the transport (UDP) are implied.
struct Candidate {
  Candidate() = default;
  Candidate(CandidateType type, const SocketAddress& address, uint32_t priority, std::string foundation,
            const SocketAddress& base = SocketAddress())
      : type(type), address(address), priority(priority), foundation(std::move(foundation)), base(base) {}

  CandidateType type = CandidateType::Host;
  SocketAddress address;
  uint32_t priority = 0;
  std::string foundation;
  // For a reflexive candidate, the local candidate's address it was learned
  // through; a host candidate is its own base.
  SocketAddress base;
};

using CandidatePtr = std::shared_ptr<Candidate>;

uint32_t typePreference(CandidateType type);

// (type preference << 24) + (local preference << 8) + 1. The last term stands
// where RFC 5245 has 256 - component; both ends of a session compute pair
// priorities from these numbers, so it stays 1.
uint32_t computePriority(CandidateType type, uint32_t localPreference);

// "host", "srflx", "prflx", "relay"; other values print as their number.
std::string candidateTypeText(CandidateType type);
// False for any other text.
bool parseCandidateType(const std::string& text, CandidateType& type);

}  // namespace ice
}  // namespace quorvel
