#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "ice/candidate.h"
#include "ice/session_socket.h"
#include "net/async_socket.h"
#include "net/local_network_info.h"

namespace quorvel {
namespace ice {

// A host candidate with the socket bound to its address; the base of every
// other local candidate is one of these.
struct HostCandidate {
  CandidatePtr candidate;
  std::shared_ptr<SessionSocket> socket;
  uint32_t localPreference = 0;
  // 1, 2, ... in the order bound; reflexive candidates learned through this
  // host share it in their foundation.
  unsigned index = 0;
};

// Whether a remote peer could reach the address: the interface is up, not
// loopback, and the address is not IPv6 link-local (such candidates need a
// scope the peer cannot know and have cost other agents long timeouts on
// pairs that can never work).
bool isCandidateAddress(const InterfaceInfo& info);

// Binds a UDP socket to a free port of each usable address, in the system's
// order, and starts it receiving into `receiver`. The first address gets
// local preference 65535, each further one one less. Addresses that fail to
// bind are logged and skipped.
std::vector<HostCandidate> bindHostCandidates(AsyncSocketFactory& factory, const std::vector<InterfaceInfo>& interfaces,
                                              const SessionSocket::Receiver& receiver);

}  // namespace ice
}  // namespace quorvel
