#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace quorvel {
namespace p2pclient {

// The UDP pair ICE reached, as the layers above see it: whole datagrams out
// and in, nothing else. The SCTP association of the video download runs on
// this, as do the test modes of DatagramExchange.
//
// Calling order: everything happens on the thread that runs the GLib main
// context the path was made with; the receiver is called from that loop too.
// Code on other threads (a stack's own timers) must hand its packets to that
// loop first instead of calling send() directly.
class DatagramPath {
 public:
  using Receiver = std::function<void(const std::uint8_t* data, std::size_t size)>;

  virtual ~DatagramPath() = default;

  // False when the datagram could not be handed to the socket (no pair
  // yet, or the socket refused it); UDP gives no other promise.
  virtual bool send(const std::uint8_t* data, std::size_t size) = 0;

  // Replaces the receiver; an empty one drops what arrives.
  virtual void setReceiver(Receiver receiver) = 0;
};

}  // namespace p2pclient
}  // namespace quorvel
