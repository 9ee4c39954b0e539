#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/types.h>
#include <usrsctp.h>

#include "net/socket_address.h"

namespace quorvel {

// The stack's calls in this program's terms.

// The stack's AF_CONN address for a point-to-point address on the link
// registered as `connData`. Throws std::invalid_argument "Unsupported address
// type" for any other family.
sockaddr_conn toConnAddress(const SocketAddress& address, uintptr_t connData);
// The point-to-point address (port only) of a stack address.
SocketAddress fromConnAddress(const sockaddr_conn& address);

// The first local or peer address of a stack socket; empty when it has none.
SocketAddress stackLocalAddress(struct socket* handle);
SocketAddress stackPeerAddress(struct socket* handle);

// One read of (part of) a message. Returns what usrsctp_recvv returns (errno
// set when negative); `flags` gets MSG_EOR / MSG_NOTIFICATION, and `stream`
// the stream id when the stack reported it (left alone otherwise).
ssize_t stackReceive(struct socket* handle, void* buffer, std::size_t size, int& flags, uint16_t& stream);

// "%x" arguments of log lines for handles and registered address values.
inline uintptr_t handleValue(const void* handle) { return reinterpret_cast<uintptr_t>(handle); }

}  // namespace quorvel
