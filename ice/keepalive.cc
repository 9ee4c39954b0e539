#include "ice/keepalive.h"

#include "ice/check_messages.h"
#include "ice/session_timing.h"

namespace quorvel {
namespace ice {

Keepalive::Keepalive(const SessionDependencies& dependencies)
    : reactor_(dependencies.reactor),
      agent_(dependencies.agent),
      random_(dependencies.random),
      task_([this]() { send(); }) {}

void Keepalive::start(const std::shared_ptr<SessionSocket>& socket, const SocketAddress& peer) {
  socket_ = socket;
  peer_ = peer;
  reactor_->scheduleAfter(token_, KeepaliveInterval, task_.start());
}

void Keepalive::send() {
  agent_->sendMessage(socket_->socket(), makeKeepalive(*random_), peer_);
  reactor_->scheduleAfter(token_, KeepaliveInterval, task_.start());
}

void Keepalive::stop() {
  task_.cancel();
  token_ = makeLifetimeToken();
  socket_.reset();
}

}  // namespace ice
}  // namespace quorvel
