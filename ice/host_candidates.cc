#include "ice/host_candidates.h"

#include <netinet/in.h>

#include <algorithm>
#include <exception>
#include <string>

#include "core/log.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

constexpr uint32_t TopLocalPreference = 65535;

// fe80::/10
bool isIpv6LinkLocal(const SocketAddress& address) {
  if (address.family() != AF_INET6) return false;
  const uint8_t* bytes = address.addressBytes();
  return bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80;
}

}  // namespace

bool isCandidateAddress(const InterfaceInfo& info) {
  const int family = info.address.family();
  if (family != AF_INET && family != AF_INET6) return false;
  if (!info.up || info.loopback || info.address.isLoopback()) return false;
  return !isIpv6LinkLocal(info.address);
}

std::vector<HostCandidate> bindHostCandidates(AsyncSocketFactory& factory, const std::vector<InterfaceInfo>& interfaces,
                                              const SessionSocket::Receiver& receiver) {
  std::vector<HostCandidate> hosts;
  std::vector<SocketAddress> seen;
  for (const InterfaceInfo& info : interfaces) {
    if (!isCandidateAddress(info)) continue;
    const SocketAddress address(info.address, 0);
    // An address listed twice (aliases) would only give duplicate pairs.
    if (std::find(seen.begin(), seen.end(), address) != seen.end()) continue;
    seen.push_back(address);

    std::shared_ptr<AsyncSocket> socket;
    SocketAddress bound;
    try {
      socket = factory.createSocket(address.family(), SOCK_DGRAM, IPPROTO_UDP);
      socket->bind(address);
      bound = socket->localAddress();
    } catch (const std::exception& e) {
      QLOG(Log, log::Warning, "Failed to bind to address %s: %s", address.toString(), e.what());
      if (socket) socket->close();
      continue;
    }
    HostCandidate host;
    host.index = static_cast<unsigned>(hosts.size() + 1);
    host.localPreference = TopLocalPreference - static_cast<uint32_t>(hosts.size());
    host.candidate = std::make_shared<Candidate>(CandidateType::Host, bound,
                                                 computePriority(CandidateType::Host, host.localPreference),
                                                 "h" + std::to_string(host.index), bound);
    host.socket = std::make_shared<SessionSocket>(socket, bound);
    QLOG(Log, log::Info, "Adding local candidate %s with preference %u", bound.toString(), host.localPreference);
    host.socket->startReceiving(receiver);
    hosts.push_back(host);
  }
  return hosts;
}

}  // namespace ice
}  // namespace quorvel
