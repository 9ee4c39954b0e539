#include "ice/session_socket.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "tests/unit/ice/fake_udp_network.h"

namespace quorvel {
namespace ice {
namespace {

// A session socket keeps going after an error that concerns one datagram or
// destination (an ICMP port unreachable for a check, a full queue) and stops
// at one that says the socket itself is broken.
TEST(SessionSocket, GoesOnReceivingOnlyAfterErrorsThatConcernOneDatagram) {
  const struct {
    int error;
    bool goesOn;
  } table[] = {{ECONNREFUSED, true}, {EHOSTUNREACH, true}, {ENOBUFS, true}, {EBADF, false}, {EINVAL, false}};
  for (const auto& row : table) {
    testing::ManualReactor reactor;
    testing::FakeUdpNetwork network(reactor);
    const auto socket = std::make_shared<testing::FakeUdpSocket>(network);
    socket->receiveError = row.error;
    const auto session = std::make_shared<SessionSocket>(socket, SocketAddress(AF_INET, "10.0.0.2", 5000));
    int datagrams = 0;
    session->startReceiving(
        [&](const std::shared_ptr<SessionSocket>&, const SocketAddress&, const uint8_t*, std::size_t) { ++datagrams; });
    reactor.advance(Duration::microseconds(5500));
    EXPECT_EQ(row.goesOn ? 6 : 1, socket->receives) << row.error;
    EXPECT_EQ(0, datagrams);
  }
}

// A send the socket refuses is reported to the caller as not sent.
TEST(SessionSocket, SendSaysWhenTheSocketRefuses) {
  testing::ManualReactor reactor;
  testing::FakeUdpNetwork network(reactor);
  const auto socket = std::make_shared<testing::FakeUdpSocket>(network);
  const auto session = std::make_shared<SessionSocket>(socket, SocketAddress(AF_INET, "10.0.0.2", 5000));
  const SocketAddress peer(AF_INET, "198.51.100.2", 6000);
  const uint8_t byte = 7;
  EXPECT_TRUE(session->send(&byte, 1, peer));
  socket->close();  // fails under the session: sends now throw
  EXPECT_FALSE(session->send(&byte, 1, peer));
}

}  // namespace
}  // namespace ice
}  // namespace quorvel
