#pragma once

#include <cstddef>

#include "core/time.h"

namespace quorvel {
namespace ice {

// The clocks of one ICE session. The remote client learns the device's
// candidates only from the answer to its HTTP request through the relay, so
// gathering has to end quickly; the checks may then take as long as a
// client behind a NAT needs to start answering.

// Pacing of new checks, one per tick (RFC 5245 Ta).
constexpr Duration CheckPacing = Duration::milliseconds(20);
// The check retransmission timeout is this much per pair in the check list
// when the checks start ...
constexpr Duration CheckRtoPerPair = Duration::milliseconds(20);
// ... and never less than this.
constexpr Duration MinCheckRto = Duration::milliseconds(100);

constexpr Duration checkRto(std::size_t pairs) {
  const Duration scaled = CheckRtoPerPair * static_cast<int64_t>(pairs);
  return scaled > MinCheckRto ? scaled : MinCheckRto;
}
// After the first valid pair the controlling side waits at most this long
// for a better pair before it nominates. Pairs that can never work (private
// host addresses across NATs) would otherwise keep it waiting for their
// whole transaction time.
constexpr Duration NominationWait = Duration::milliseconds(200);

// The least time between any two sends of the STUN agent that all sessions
// share: new checks are paced by CheckPacing per session, and this keeps
// the sum of retransmissions and answers of many sessions at a rate a small
// uplink and the NATs on the way can take (RFC 8445 section 14.2 allows
// 5 ms for all of an agent's traffic).
constexpr Duration AgentSendInterval = Duration::milliseconds(5);

// Gathering, resolution of the STUN server included, ends this long after
// it started at the latest; the answer with the candidates waits for it.
// Whatever the server has not answered by then is given up, so a silent or
// unresolvable server costs at most this much and a working one a round
// trip.
constexpr Duration GatheringLimit = Duration::milliseconds(1000);
// First retransmission timeout of the Binding requests to the STUN server:
// sends at 0, 100, 300 and 700 ms fit into the limit above, where RFC
// 5389's 500 ms would allow only two.
constexpr Duration StunServerRto = Duration::milliseconds(100);

// One check transaction: with the minimum RTO it is sent at 0, 0.1, 0.3,
// 0.7, 1.5 and 3.1 s. That outlasts the relay's delay before the client
// starts its own checks, whose arrival opens the way for ours through a NAT.
constexpr Duration CheckTimeLimit = Duration::seconds(5);
// The whole check phase: a session that has not been established this long
// after its checks started fails. With gathering, a peer that never answers
// leads to "ICE session failed" at most 9 s after the request arrived
// (usually after 5 s, when the last check has timed out).
constexpr Duration CheckPhaseLimit = Duration::seconds(8);

// An established session that has sent nothing on its pair for this long
// sends a Binding indication to keep NAT bindings open (RFC 5245 Tr).
constexpr Duration KeepaliveInterval = Duration::seconds(15);

// Bounds against descriptions or peers that would make a session check
// without end (RFC 8445 section 6.1.2.5 suggests 100 pairs).
constexpr std::size_t MaxPairs = 100;
constexpr std::size_t MaxRemoteCandidates = 100;

}  // namespace ice
}  // namespace quorvel
