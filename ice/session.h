#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/delegate.h"
#include "net/socket_address.h"

namespace quorvel {
namespace ice {

struct SessionDescription;

// One ICE session of the device with one remote client, as the session
// request handler and the transport above it (SCTP) see it. Single
// component, UDP only. Everything runs on the reactor's thread.
//
// The ICE side: give it the remote description, start it, and hear of its
// progress through the event callback: CandidatesGathered (the local
// description is complete), then Established or Failed, each at most once.
//
// The transport side, once established: datagrams that arrive on the
// selected pair from the remote peer and are not STUN go to the datagram
// handler; sendDatagram sends one on that pair. The session keeps answering
// the peer's checks and keepalives meanwhile.
class Session {
 public:
  enum class Event { CandidatesGathered, Established, Failed };
  using EventCallback = Delegate<void(Event event)>;
  // The bytes are valid only for the call.
  using DatagramHandler = Delegate<void(const uint8_t* data, std::size_t size)>;

  virtual ~Session() = default;

  // The remote side's candidates and credentials; before start.
  virtual void setRemoteDescription(const SessionDescription& remote) = 0;
  // Begins gathering. A second call throws std::logic_error "ICE session
  // already started".
  virtual void start(const EventCallback& callback) = 0;
  // The device's own candidates and credentials (complete once
  // CandidatesGathered has been reported).
  virtual const SessionDescription& localDescription() const = 0;

  // True once the remote side has shown that it takes part: a check of its
  // own with the right credentials, or an answer to one of ours. A client
  // that asked for a session and went quiet never gets here.
  virtual bool hasHeardFromPeer() const = 0;

  // The selected pair's addresses once established; empty before.
  virtual SocketAddress localAddress() const = 0;
  virtual SocketAddress remoteAddress() const = 0;
  // An empty handler drops such datagrams (the default).
  virtual void setDatagramHandler(const DatagramHandler& handler) = 0;
  // Sends one datagram on the selected pair; the bytes are copied before it
  // returns. False when the session is not established (or closed) or the
  // datagram could not be handed to the socket.
  virtual bool sendDatagram(const uint8_t* data, std::size_t size) = 0;

  // Releases every socket, timer and pending STUN transaction; no event is
  // reported afterwards and sendDatagram returns false. Safe to call twice
  // and from inside the session's own callbacks.
  virtual void close() = 0;
};

using SessionPtr = std::shared_ptr<Session>;

}  // namespace ice
}  // namespace quorvel
