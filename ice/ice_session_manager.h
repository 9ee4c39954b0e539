#pragma once

#include <memory>
#include <string>

#include "core/random_source.h"
#include "core/reactor.h"
#include "ice/session.h"
#include "ice/session_factory.h"
#include "net/async_socket.h"
#include "net/local_network_info.h"
#include "net/name_resolver.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// Makes the device's ICE sessions: all of them share the reactor, the socket
// factory, the STUN agent, the interface list, the resolver, the random
// source and the STUN server's name.
class IceSessionManager {
 public:
  // Sessions come from NetSession.
  IceSessionManager(std::shared_ptr<Reactor> reactor, std::shared_ptr<AsyncSocketFactory> socketFactory,
                    std::shared_ptr<stun::StunAgent> agent, std::shared_ptr<LocalNetworkInfo> networkInfo,
                    std::shared_ptr<NameResolver> resolver, std::shared_ptr<RandomSource> random,
                    std::string stunServer);
  explicit IceSessionManager(std::shared_ptr<SessionFactory> factory);

  // A new session with the remote side's description, ready to start.
  SessionPtr createSession(const SessionDescription& remote);

 private:
  std::shared_ptr<SessionFactory> factory_;
};

}  // namespace ice
}  // namespace quorvel
