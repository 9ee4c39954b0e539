#include "ice/session_socket.h"

#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/ice/fake_udp_network.h"
#include "tests/unit/net/socket_loop_fixture.h"

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

// The data path without a completion per datagram: reads drained per
// wake-up on real loopback sockets, sends tried at once with the asynchronous
// send as the fallback.
class SessionSocketDrainTest : public testing::SocketLoopFixture {
 protected:
  SessionSocketDrainTest() : SocketLoopFixture(64) {}

  // Datagrams "0", "1", ... already in the receiver's queue when this returns.
  void queue(int count) {
    for (int i = 0; i < count; ++i) {
      const std::string text = std::to_string(i);
      ASSERT_EQ(static_cast<long>(text.size()),
                peer_->trySendTo(reinterpret_cast<const uint8_t*>(text.data()), text.size(), where_));
    }
  }

  std::shared_ptr<AsyncSocket> peer_ = udpOnLoopback();
  std::shared_ptr<AsyncSocket> raw_ = udpOnLoopback();
  SocketAddress where_ = raw_->localAddress();
  std::shared_ptr<SessionSocket> socket_ = std::make_shared<SessionSocket>(raw_, where_);
  LifetimeToken token_ = makeLifetimeToken();
};

TEST_F(SessionSocketDrainTest, ReadsAWakeUpsDatagramsInOneGoUpToTheBound) {
  const int total = SessionSocket::MaxReceivesPerWakeUp + 36;
  queue(total);
  std::vector<std::string> received;
  int beforeOtherTasks = -1;
  socket_->startReceiving([&](const std::shared_ptr<SessionSocket>&, const SocketAddress& from, const uint8_t* data,
                              std::size_t size) {
    EXPECT_EQ(from, peer_->localAddress());
    received.emplace_back(reinterpret_cast<const char*>(data), size);
    if (received.size() == 1) reactor_->post(token_, [&] { beforeOtherTasks = static_cast<int>(received.size()); });
    if (received.size() == static_cast<std::size_t>(total)) stop();
  });
  run();
  EXPECT_EQ(SessionSocket::MaxReceivesPerWakeUp, beforeOtherTasks);
  ASSERT_EQ(static_cast<std::size_t>(total), received.size());
  for (int i = 0; i < total; ++i) EXPECT_EQ(std::to_string(i), received[i]);
}

TEST_F(SessionSocketDrainTest, AReceiverThatClosesOrDropsTheSocketEndsTheDrain) {
  for (const bool drop : {false, true}) {
    raw_ = udpOnLoopback();
    where_ = raw_->localAddress();
    socket_ = std::make_shared<SessionSocket>(raw_, where_);
    queue(10);
    int received = 0;
    socket_->startReceiving(
        [&](const std::shared_ptr<SessionSocket>& socket, const SocketAddress&, const uint8_t*, std::size_t) {
          if (++received < 3) return;
          socket->close();
          if (drop) socket_.reset();
        });
    reactor_->scheduleAfter(token_, Duration::milliseconds(50), [this] { stop(); });
    run();
    EXPECT_EQ(3, received) << drop;
    EXPECT_EQ(drop, socket_ == nullptr);
  }
}

TEST_F(SessionSocketDrainTest, SendsAreInThePeersQueueWhenSendReturns) {
  const std::string text = "sent at once";
  ASSERT_TRUE(socket_->send(reinterpret_cast<const uint8_t*>(text.data()), text.size(), peer_->localAddress()));
  uint8_t room[64];
  SocketAddress from;
  ASSERT_EQ(static_cast<long>(text.size()), peer_->tryReceiveFrom(room, sizeof(room), from));
  EXPECT_EQ(text, std::string(reinterpret_cast<const char*>(room), text.size()));
  EXPECT_EQ(where_, from);
  EXPECT_EQ(-EAGAIN, peer_->tryReceiveFrom(room, sizeof(room), from));
}

// Answers tries from a script and keeps asynchronous sends in flight until
// told to complete them, as a socket with a full queue would.
class ScriptedSendSocket : public AsyncSocket {
 public:
  void bind(const SocketAddress&) override {}
  void connect(const SocketAddress&, const ConnectCallback&) override {}
  void send(const BufferChainPtr&, const TransferCallback&) override {}
  void sendTo(const BufferChainPtr& buffers, const SocketAddress&, const TransferCallback&) override {
    inFlight.push_back(buffers);
    log.push_back("async " + std::string(buffers.chain().begin(), buffers.chain().end()));
  }
  void receive(const BufferChainPtr&, const TransferCallback&) override {}
  void receiveFrom(const BufferChainPtr&, const ReceiveFromCallback&) override {}
  long trySendTo(const uint8_t* data, std::size_t size, const SocketAddress&) override {
    const long result = tries.empty() ? static_cast<long>(size) : tries.front();
    if (!tries.empty()) tries.erase(tries.begin());
    log.push_back((result >= 0 ? "sent " : "tried ") + std::string(reinterpret_cast<const char*>(data), size));
    return result;
  }
  void setOption(int, int, const void*, std::size_t) override {}
  void getOption(int, int, void*, std::size_t&) override {}
  SocketAddress localAddress() const override { return SocketAddress(); }
  SocketAddress remoteAddress() const override { return SocketAddress(); }
  void close() override {}

  std::vector<long> tries;
  std::vector<BufferChainPtr> inFlight;
  std::vector<std::string> log;
};

TEST(SessionSocketSend, FallsBackToTheQueueOnlyWhenTheKernelWouldBlockAndKeepsTheOrder) {
  const auto raw = std::make_shared<ScriptedSendSocket>();
  SessionSocket socket(raw, SocketAddress(AF_INET, "10.0.0.2", 5000));
  const SocketAddress to(AF_INET, "10.0.0.3", 6000);
  const auto send = [&](const std::string& text) {
    return socket.send(reinterpret_cast<const uint8_t*>(text.data()), text.size(), to);
  };
  EXPECT_FALSE(send(std::string(SessionSocket::BufferSize, 'x')));  // too big to be told from a cut one
  raw->tries = {-EAGAIN, -ECONNREFUSED, -EBADF};
  EXPECT_TRUE(send("a"));  // would block: queued
  EXPECT_TRUE(send("b"));  // "a" still queued: "b" goes behind it, untried
  raw->inFlight.clear();
  EXPECT_TRUE(send("c"));   // lost to an ICMP report, like any datagram
  EXPECT_FALSE(send("d"));  // the socket is broken
  EXPECT_TRUE(send("e"));
  EXPECT_EQ((std::vector<std::string>{"tried a", "async a", "async b", "tried c", "tried d", "sent e"}), raw->log);
  raw->tries = {-EAGAIN};
  for (std::size_t i = 0; i < SessionSocket::MaxSendsInFlight; ++i) EXPECT_TRUE(send("q"));
  EXPECT_FALSE(send("r"));  // every send buffer still in the socket's hands
}

}  // namespace
}  // namespace ice
}  // namespace quorvel
