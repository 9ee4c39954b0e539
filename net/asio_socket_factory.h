#pragma once

#include <memory>

#include "core/asio_reactor.h"
#include "net/async_socket.h"

namespace quorvel {

// Plain TCP and UDP sockets on the reactor's own I/O loop.
class AsioSocketFactory : public AsyncSocketFactory {
 public:
  explicit AsioSocketFactory(std::shared_ptr<AsioReactor> reactor) : reactor_(std::move(reactor)) {}

  // Throws std::invalid_argument "Unsupported protocol family" / "Unsupported
  // stream protocol" / "Unsupported datagram protocol", std::logic_error
  // "Unsupported protocol" for other types; SocketError if the system cannot
  // open the socket.
  std::shared_ptr<AsyncSocket> createSocket(int family, int type, int protocol) override;
  // TCP only: std::logic_error "Unsupported socket type" for other types.
  std::shared_ptr<AsyncListener> createListener(int family, int type, int protocol) override;

 private:
  std::shared_ptr<AsioReactor> reactor_;
};

}  // namespace quorvel
