#pragma once

#include <cstdint>

#include <usrsctp.h>

#include "net/socket_address.h"

namespace quorvel {

// The stack's AF_CONN address for a point-to-point address on the link
// registered as `connData`. Throws std::invalid_argument "Unsupported address
// type" for any other family.
sockaddr_conn toConnAddress(const SocketAddress& address, uintptr_t connData);
// The point-to-point address (port only) of a stack address.
SocketAddress fromConnAddress(const sockaddr_conn& address);

// The first local or peer address of a stack socket; empty when it has none.
SocketAddress stackLocalAddress(struct socket* handle);
SocketAddress stackPeerAddress(struct socket* handle);

// "%x" arguments of log lines for handles and registered address values.
inline uintptr_t handleValue(const void* handle) { return reinterpret_cast<uintptr_t>(handle); }

}  // namespace quorvel
