#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/delegate.h"
#include "net/buffer_chain_ptr.h"
#include "net/socket_address.h"

namespace quorvel {

// The one socket interface behind every transport (TCP, UDP, TLS, SCTP).
//
// Completion callbacks always run later on the reactor's thread, never from
// inside the call that started the operation. Errors reach them as errno
// numbers, 0 on success; a cancelled operation (close()) reports ECANCELED.
// A stream receive that completes with error 0 and 0 bytes means the peer
// closed its side.
//
// Buffers travel as BufferChainPtr handles: the socket keeps its own
// reference until the operation completes, so the caller may drop its handle
// at once. send/sendTo send the chain's valid bytes; receive/receiveFrom fill
// the chain's buffers from the start (up to its size) and report how many
// bytes arrived, leaving the chain's lengths as they were.
//
// Dropping the last reference to a socket does not cancel what is in flight:
// outstanding operations complete and their callbacks run (and keep whatever
// they are bound to alive until then). Call close() to cancel them.
//
// Misuse (an operation the socket kind cannot do) throws at once; failed
// synchronous calls throw SocketError. Sockets belong to the reactor's
// thread: call them only from there.
class AsyncSocket {
 public:
  using ConnectCallback = Delegate<void(int error)>;
  using TransferCallback = Delegate<void(int error, std::size_t bytes)>;
  using ReceiveFromCallback = Delegate<void(int error, std::size_t bytes, const SocketAddress& from)>;

  virtual ~AsyncSocket() = default;

  // Logs and throws SocketError on failure.
  virtual void bind(const SocketAddress& address) = 0;
  virtual void connect(const SocketAddress& address, const ConnectCallback& callback) = 0;
  // Stream sockets write the whole chain; datagram sockets send it as one
  // datagram to the connected peer.
  virtual void send(const BufferChainPtr& buffers, const TransferCallback& callback) = 0;
  virtual void sendTo(const BufferChainPtr& buffers, const SocketAddress& to, const TransferCallback& callback) = 0;
  virtual void receive(const BufferChainPtr& buffers, const TransferCallback& callback) = 0;
  virtual void receiveFrom(const BufferChainPtr& buffers, const ReceiveFromCallback& callback) = 0;
  // For a datagram data path that cannot afford a completion per datagram:
  // one non-blocking attempt, done before the call returns, with the caller's
  // bytes. The datagram's size (sent, or received and cut to `size`, with
  // `from` set), or minus the errno number: -EAGAIN when the kernel would
  // block. Sockets that cannot try answer -EOPNOTSUPP; the asynchronous calls
  // are the way then. Do not mix a try with an asynchronous operation of the
  // same direction in flight: that would reorder datagrams.
  virtual long tryReceiveFrom(uint8_t*, std::size_t, SocketAddress&) { return -EOPNOTSUPP; }
  virtual long trySendTo(const uint8_t*, std::size_t, const SocketAddress&) { return -EOPNOTSUPP; }
  // Passed to the system as they are (setsockopt/getsockopt); `length` of
  // getOption is the room in `value` on entry and the size used on return.
  virtual void setOption(int level, int name, const void* value, std::size_t length) = 0;
  virtual void getOption(int level, int name, void* value, std::size_t& length) = 0;
  virtual SocketAddress localAddress() const = 0;
  virtual SocketAddress remoteAddress() const = 0;
  // Cancels outstanding operations and closes; safe to call twice.
  virtual void close() = 0;
};

class AsyncListener {
 public:
  // The new connection, or null with an error.
  using AcceptCallback = Delegate<void(int error, std::shared_ptr<AsyncSocket> socket)>;

  virtual ~AsyncListener() = default;

  virtual void bind(const SocketAddress& address) = 0;
  virtual void listen(int backlog) = 0;
  // One connection per call; call again from the callback for the next.
  virtual void accept(const AcceptCallback& callback) = 0;
  virtual void setOption(int level, int name, const void* value, std::size_t length) = 0;
  virtual void getOption(int level, int name, void* value, std::size_t& length) = 0;
  // Where it listens (port 0 binds pick a free port).
  virtual SocketAddress localAddress() const = 0;
  // Cancels a pending accept (ECANCELED) and stops listening.
  virtual void close() = 0;
};

// Families, types and protocols are the POSIX numbers: AF_INET 2, AF_INET6
// 10; SOCK_STREAM 1, SOCK_DGRAM 2; protocol 0 (default), IPPROTO_TCP 6,
// IPPROTO_UDP 17.
class AsyncSocketFactory {
 public:
  virtual ~AsyncSocketFactory() = default;
  virtual std::shared_ptr<AsyncSocket> createSocket(int family, int type, int protocol) = 0;
  virtual std::shared_ptr<AsyncListener> createListener(int family, int type, int protocol) = 0;
};

// IPv4 multicast membership through the socket's setOption (IPPROTO_IP,
// IP_ADD_MEMBERSHIP / IP_DROP_MEMBERSHIP with group and interface address).
// Throws std::invalid_argument "joinMulticastGroup: Address types not
// supported" (or "leave...") for anything but two IPv4 addresses.
void joinMulticastGroup(AsyncSocket& socket, const SocketAddress& group, const SocketAddress& interfaceAddress);
void leaveMulticastGroup(AsyncSocket& socket, const SocketAddress& group, const SocketAddress& interfaceAddress);

}  // namespace quorvel
