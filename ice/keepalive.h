#pragma once

#include <memory>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "ice/session_link.h"
#include "ice/session_socket.h"

namespace quorvel {
namespace ice {

// Keeps the NAT bindings of an established session's pair open: a Binding
// indication every KeepaliveInterval (RFC 5245 Tr), from the selected pair's
// socket to its remote address.
//   Owns: its timer, and that socket and address from start to stop.
//   Changes, reads and calls back: nothing else.
class Keepalive {
 public:
  explicit Keepalive(const SessionDependencies& dependencies);

  void start(const std::shared_ptr<SessionSocket>& socket, const SocketAddress& peer);
  void stop();

 private:
  void send();

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<stun::StunAgent> agent_;
  std::shared_ptr<RandomSource> random_;
  std::shared_ptr<SessionSocket> socket_;
  SocketAddress peer_;
  CancelableTask task_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ice
}  // namespace quorvel
