#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/delegate.h"
#include "net/async_socket.h"
#include "net/buffer_chain_ptr.h"

namespace quorvel {
namespace ice {

// The UDP socket of one host candidate: receives without end into one
// contiguous buffer, and sends straight from the caller's bytes (or, when the
// kernel's queue is full, from a few reused buffers), so that the data path
// allocates nothing of its own per datagram. Each wake-up reads every queued
// datagram up to a bound, and a send the kernel takes at once leaves no
// completion behind: a busy SCTP sender receives a SACK for every two
// packets it sends, and a loop turn per datagram was a large share of its
// CPU.
class SessionSocket : public std::enable_shared_from_this<SessionSocket> {
 public:
  // The bytes are valid only for the call.
  using Receiver = Delegate<void(const std::shared_ptr<SessionSocket>& socket, const SocketAddress& from,
                                 const uint8_t* data, std::size_t size)>;

  // Datagrams of this size or larger are dropped on arrival (they may have
  // been cut) and refused by send. The path carries SCTP packets of about the
  // path MTU and STUN messages of a few hundred bytes.
  static constexpr std::size_t BufferSize = 2048;
  // Sends still in the socket's hands at once; more are refused, as a full
  // queue drops a datagram.
  static constexpr std::size_t MaxSendsInFlight = 32;
  // Datagrams read per wake-up: the rest wait for the next turn of the loop,
  // behind whatever else is due on it.
  static constexpr int MaxReceivesPerWakeUp = 64;

  SessionSocket(std::shared_ptr<AsyncSocket> socket, const SocketAddress& localAddress);
  ~SessionSocket();
  SessionSocket(const SessionSocket&) = delete;
  SessionSocket& operator=(const SessionSocket&) = delete;

  // Receives until close() or an error that cannot be recovered from.
  void startReceiving(const Receiver& receiver);
  // Sends the datagram at once if the kernel takes it, or else copies it and
  // hands it to the socket; false when it cannot.
  bool send(const uint8_t* data, std::size_t size, const SocketAddress& to);
  // Cancels the receive and closes the socket; safe to call twice.
  void close();

  const std::shared_ptr<AsyncSocket>& socket() const { return socket_; }
  const SocketAddress& localAddress() const { return localAddress_; }
  bool isOpen() const { return !closed_; }

 private:
  void receiveNext();
  void onReceive(int error, std::size_t bytes, const SocketAddress& from);
  // False when receiving must stop (closed, or an error that cannot be
  // recovered from).
  bool deliver(const std::shared_ptr<SessionSocket>& self, int error, std::size_t bytes, const SocketAddress& from);
  bool sendsQueued() const;
  BufferChainPtr* freeSendBuffer();

  std::shared_ptr<AsyncSocket> socket_;
  const SocketAddress localAddress_;
  Receiver receiver_;
  BufferChainPtr receiveBuffer_;
  // Built once: copying it into each receive costs no allocation.
  AsyncSocket::ReceiveFromCallback onReceive_;
  std::vector<BufferChainPtr> sendBuffers_;
  bool closed_ = false;
};

}  // namespace ice
}  // namespace quorvel
