#pragma once

// Two ICE sessions connected back to back in memory: a datagram one sends is
// posted to the reactor and handed to the other's datagram handler, as if it
// had crossed the selected pair. The test can cut the path, and sees every
// datagram go by. A session alone also plays one for its owner, which the
// test drives through the event callback.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "core/lifetime.h"
#include "core/reactor.h"
#include "ice/session.h"
#include "ice/session_description.h"

namespace quorvel {
namespace testing {

class FakeIceSession : public ice::Session {
 public:
  FakeIceSession(std::shared_ptr<Reactor> reactor, const SocketAddress& local, const SocketAddress& remote)
      : reactor_(std::move(reactor)), local_(local), remote_(remote) {}

  void connectTo(const std::shared_ptr<FakeIceSession>& peer) { peer_ = peer; }

  void setRemoteDescription(const ice::SessionDescription& description) override { remote = description; }
  void start(const EventCallback& callback) override {
    if (failStart) throw std::logic_error("ICE session already started");
    events = callback;
  }
  const ice::SessionDescription& localDescription() const override { return local; }
  bool hasHeardFromPeer() const override { return heardFromPeer; }
  SocketAddress localAddress() const override { return local_; }
  SocketAddress remoteAddress() const override { return remote_; }
  void setDatagramHandler(const DatagramHandler& handler) override { handler_ = handler; }
  bool sendDatagram(const uint8_t* data, std::size_t size) override {
    if (closed) return false;
    lastSent.assign(data, data + size);
    ++sends;
    if (dropping) return true;  // lost on the way
    auto bytes = std::make_shared<std::vector<uint8_t>>(data, data + size);
    std::weak_ptr<FakeIceSession> weakPeer = peer_;
    reactor_->post(token_, [weakPeer, bytes] {
      if (std::shared_ptr<FakeIceSession> peer = weakPeer.lock()) peer->receive(bytes->data(), bytes->size());
    });
    return true;
  }
  void close() override {
    closed = true;
    ++closes;
    handler_.clear();
  }

  // As if this datagram had arrived from the peer.
  void receive(const uint8_t* data, std::size_t size) {
    if (!closed && handler_) handler_(data, size);
  }
  bool hasHandler() const { return static_cast<bool>(handler_); }

  ice::SessionDescription local, remote;
  EventCallback events;
  bool failStart = false;
  bool heardFromPeer = false;
  bool closed = false;
  int closes = 0;
  bool dropping = false;  // the path is cut: datagrams vanish
  std::vector<uint8_t> lastSent;
  int sends = 0;

 private:
  std::shared_ptr<Reactor> reactor_;
  SocketAddress local_, remote_;
  std::weak_ptr<FakeIceSession> peer_;
  DatagramHandler handler_;
  LifetimeToken token_ = makeLifetimeToken();
};

struct FakeIceSessionPair {
  explicit FakeIceSessionPair(const std::shared_ptr<Reactor>& reactor)
      : device(std::make_shared<FakeIceSession>(reactor, SocketAddress(2, "198.18.1.2", 40000),
                                                SocketAddress(2, "198.19.0.2", 50000))),
        client(std::make_shared<FakeIceSession>(reactor, SocketAddress(2, "198.19.0.2", 50000),
                                                SocketAddress(2, "198.18.1.2", 40000))) {
    device->connectTo(client);
    client->connectTo(device);
  }
  std::shared_ptr<FakeIceSession> device, client;
};

}  // namespace testing
}  // namespace quorvel
