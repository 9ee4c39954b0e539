#pragma once

#include <memory>

#include "net/async_socket.h"

namespace quorvel {

// A transport carried over one established ICE session. Sockets and
// listeners made here speak over that session's selected pair; their
// addresses are point-to-point ones (SocketAddress::FamilySpecial), of which
// only the port counts.
class IceSessionLink {
 public:
  virtual ~IceSessionLink() = default;

  // Family SocketAddress::FamilySpecial, stream type, protocol 0 or SCTP;
  // anything else throws std::invalid_argument "Only point to point sockets
  // are supported". SocketError when the stack cannot open one.
  virtual std::shared_ptr<AsyncSocket> createSocket(int family, int type, int protocol) = 0;
  virtual std::shared_ptr<AsyncListener> createListener(int family, int type, int protocol) = 0;
  // Stops carrying packets and closes the ICE session. Associations already
  // shutting down are aborted first, so that their ABORTs still reach the
  // peer; sockets still open then see theirs time out or abort. Safe to
  // call twice.
  virtual void close() = 0;
};

}  // namespace quorvel
