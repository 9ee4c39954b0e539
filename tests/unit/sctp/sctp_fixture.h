#pragma once

#include <cerrno>
#include <deque>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/async_socket.h"
#include "net/buffer_chain_ptr.h"
#include "net/buffer_pool.h"
#include "sctp/sctp_ice_session_link.h"
#include "sctp/sctp_udp_service.h"
#include "tests/support/fake_ice_session.h"
#include "tests/support/manual_reactor.h"
#include "tests/unit/http/chain_text.h"

namespace quorvel {
namespace testing {

inline SocketAddress p2p(uint16_t port) { return SocketAddress(SocketAddress::FamilySpecial, std::string(), port); }

// What one operation reported (a receive: with the bytes as text).
struct Completion {
  bool done = false;
  int error = -1;
  std::size_t bytes = 0;
  std::string text;
};

// Two SCTP endpoints in this process, the device's and the client's, each on
// its own link over a pair of fake ICE sessions; the stack runs on virtual
// time.
class SctpFixture : public ::testing::Test {
 protected:
  SctpFixture()
      : reactor(std::make_shared<ManualReactor>()),
        service(std::make_shared<SctpUdpService>(reactor)),
        sessions(reactor),
        deviceLink(std::make_shared<SctpIceSessionLink>(reactor, service, sessions.device)),
        clientLink(std::make_shared<SctpIceSessionLink>(reactor, service, sessions.client)) {}

  ~SctpFixture() override {
    // Completions still to come (ECANCELED) find the test's locals gone.
    *alive = false;
    // Sockets first, then the links, then the stack.
    accepted.reset();
    client.reset();
    listener.reset();
    deviceLink.reset();
    clientLink.reset();
    run(100);
  }

  // Lets virtual time pass; the stack's timers and packets move with it.
  void run(int milliseconds) { reactor->advance(Duration::milliseconds(milliseconds)); }

  void listen() {
    listener = deviceLink->createListener(SocketAddress::FamilySpecial, SOCK_STREAM, 0);
    listener->bind(p2p(5000));
    listener->listen(4);
  }

  // Accepts the next association on the device's listener.
  std::shared_ptr<AsyncSocket> acceptOne() {
    std::shared_ptr<AsyncSocket> got;
    listener->accept([&got](int error, std::shared_ptr<AsyncSocket> socket) {
      EXPECT_EQ(error, 0);
      got = socket;
    });
    run(200);
    return got;
  }

  // Port 0: the link picks one.
  std::shared_ptr<AsyncSocket> connectFrom(uint16_t port, Completion& connected) {
    std::shared_ptr<AsyncSocket> socket = clientLink->createSocket(SocketAddress::FamilySpecial, SOCK_STREAM, 0);
    if (port) socket->bind(p2p(port));
    socket->connect(p2p(5000), [&connected, alive = alive](int error) {
      if (!*alive) return;
      connected.done = true;
      connected.error = error;
    });
    return socket;
  }

  // Client connected from port 5000, device socket accepted.
  void associate() {
    listen();
    Completion connected;
    client = connectFrom(5000, connected);
    accepted = acceptOne();
    ASSERT_TRUE(connected.done);
    ASSERT_EQ(connected.error, 0);
    ASSERT_TRUE(accepted);
  }

  BufferChainPtr chainOf(const std::string& text) { return BufferChainPtr(testing::chainOf(pool, text)); }

  // Starts a send; what it reports lands in the returned record the fixture
  // keeps.
  Completion& sendText(AsyncSocket& socket, const std::string& text) {
    Completion& sent = completions.emplace_back();
    socket.send(chainOf(text), [&sent, alive = alive](int error, std::size_t bytes) {
      if (!*alive) return;
      sent.done = true;
      sent.error = error;
      sent.bytes = bytes;
    });
    return sent;
  }

  // Starts a receive into a chain of `room` bytes; the bytes arrive as text.
  Completion& receiveText(AsyncSocket& socket, std::size_t room) {
    Completion& got = completions.emplace_back();
    BufferChainPtr chain(pool.allocate(room));
    socket.receive(chain, [&got, chain, alive = alive](int error, std::size_t bytes) {
      if (!*alive) return;
      got.done = true;
      got.error = error;
      got.bytes = bytes;
      got.text = textOf(chain.chain()).substr(0, bytes);
    });
    return got;
  }

  // Reads until `size` bytes, the end or an error, or until time runs out.
  std::string readAll(AsyncSocket& socket, std::size_t size, int maxMilliseconds = 10000) {
    std::string all;
    for (int waited = 0; all.size() < size && waited < maxMilliseconds;) {
      const Completion& got = receiveText(socket, 64 * 1024);
      while (!got.done && waited < maxMilliseconds) {
        run(10);
        waited += 10;
      }
      if (!got.done) {
        socket.close();
        run(0);
        break;
      }
      if (got.error || got.bytes == 0) break;
      all += got.text;
    }
    return all;
  }

  // Reads for up to a second while data still arrives; the last receive,
  // which should have ended the stream.
  const Completion& readToTheEnd(AsyncSocket& socket) {
    const Completion* got = &receiveText(socket, 64 * 1024);
    for (int waited = 0; waited < 1000; waited += 10) {
      run(10);
      if (!got->done) continue;
      if (got->error || got->bytes == 0) break;
      got = &receiveText(socket, 64 * 1024);
    }
    return *got;
  }

  std::shared_ptr<bool> alive = std::make_shared<bool>(true);
  std::deque<Completion> completions;
  BufferPool pool{512, 0, 0};
  std::shared_ptr<ManualReactor> reactor;
  std::shared_ptr<SctpUdpService> service;
  FakeIceSessionPair sessions;
  std::shared_ptr<SctpIceSessionLink> deviceLink, clientLink;
  std::shared_ptr<AsyncListener> listener;
  std::shared_ptr<AsyncSocket> client, accepted;
};

}  // namespace testing
}  // namespace quorvel
