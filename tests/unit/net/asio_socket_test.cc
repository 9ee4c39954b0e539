#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/asio_socket_factory.h"
#include "net/socket_error.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"
#include "tests/unit/http/fake_network.h"
#include "tests/unit/net/socket_loop_fixture.h"
#include "tests/unit/net/thrown_text.h"

namespace quorvel {
namespace {

using testing::thrownText;

class AsioSocketTest : public testing::SocketLoopFixture {
 protected:
  AsioSocketTest() : SocketLoopFixture(8) {}  // small buffers: every transfer spans several

  // A listener on a free loopback port; its one connection is read to the
  // end into `received`, then the loop stops.
  std::shared_ptr<AsyncListener> collectingListener(std::string& received) {
    auto listener = factory_.createListener(AF_INET, SOCK_STREAM, 0);
    listener->bind(SocketAddress(AF_INET, SocketAddress::Loopback, 0));
    listener->listen(1);
    inbound_ = BufferChainPtr(pool_.allocate(4096));
    listener->accept([this, &received, where = listener->localAddress()](int error, std::shared_ptr<AsyncSocket> s) {
      ASSERT_EQ(error, 0);
      EXPECT_EQ(s->localAddress(), where);
      served_ = s;
      readInto(received);
    });
    return listener;
  }

  void readInto(std::string& received) {
    served_->receive(inbound_, [this, &received](int error, std::size_t bytes) {
      if (error != 0 || bytes == 0) {  // the client closed its side
        served_->close();
        stop();
        return;
      }
      received += firstBytes(inbound_, bytes);
      readInto(received);
    });
  }

  AsioSocketFactory& factory_ = plain_;
  std::shared_ptr<AsyncSocket> served_;
  BufferChainPtr inbound_;
};

TEST_F(AsioSocketTest, FactoryRejectsWhatItCannotMake) {
  EXPECT_EQ(thrownText([&] { factory_.createSocket(AF_INET, SOCK_STREAM, IPPROTO_UDP); }),
            "Unsupported stream protocol");
  EXPECT_EQ(thrownText([&] { factory_.createSocket(AF_INET, SOCK_DGRAM, IPPROTO_TCP); }),
            "Unsupported datagram protocol");
  EXPECT_EQ(thrownText([&] { factory_.createSocket(1, SOCK_STREAM, 0); }), "Unsupported protocol family");
  EXPECT_EQ(thrownText([&] { factory_.createSocket(AF_INET, 3, 0); }), "Unsupported protocol");
  EXPECT_THROW(factory_.createSocket(AF_INET, 3, 0), std::logic_error);
  EXPECT_EQ(thrownText([&] { factory_.createListener(AF_INET, SOCK_DGRAM, 0); }), "Unsupported socket type");
  EXPECT_EQ(thrownText([&] { factory_.createListener(AF_INET6, SOCK_STREAM, IPPROTO_UDP); }),
            "Unsupported stream protocol");
  EXPECT_EQ(thrownText([&] { factory_.createListener(3, SOCK_STREAM, 0); }), "Unsupported protocol family");

  auto tcp = factory_.createSocket(AF_INET6, SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(thrownText([&] { tcp->sendTo(chainOf("x"), SocketAddress(AF_INET6, SocketAddress::Loopback, 9), {}); }),
            "sendTo not supported by stream sockets");
  EXPECT_EQ(thrownText([&] { tcp->receiveFrom(chainOf("x"), {}); }), "receiveFrom not supported by stream sockets");
  EXPECT_THROW(tcp->remoteAddress(), SocketError);
}

// Small writes go out at once, big ones in parts, through a listener; either
// way the callback comes later, never from inside send(), with every byte
// counted.
TEST_F(AsioSocketTest, SendCallbacksComeLaterWithEveryByte) {
  std::string received;
  auto listener = collectingListener(received);
  auto client = factory_.createSocket(AF_INET, SOCK_STREAM, 0);
  const std::string small = "a short request";
  const std::string big(256 * 1024, 'b');
  std::vector<std::size_t> sent;
  bool inSend = false;
  client->connect(listener->localAddress(), [&](int error) {
    ASSERT_EQ(error, 0);
    EXPECT_EQ(client->remoteAddress(), listener->localAddress());
    inSend = true;
    client->send(chainOf(small), [&](int error, std::size_t bytes) {
      EXPECT_FALSE(inSend);
      EXPECT_EQ(error, 0);
      sent.push_back(bytes);
      inSend = true;
      client->send(chainOf(big), [&](int error, std::size_t bytes) {
        EXPECT_FALSE(inSend);
        EXPECT_EQ(error, 0);
        sent.push_back(bytes);
        client->close();
      });
      inSend = false;
    });
    inSend = false;
  });
  run();
  EXPECT_EQ(sent, (std::vector<std::size_t>{small.size(), big.size()}));
  EXPECT_EQ(received, small + big);
  listener->close();
}

// Sends made while one is still going out wait their turn: the bytes and
// the callbacks keep the order of the calls. A close then cancels the write
// that waits for room and those behind it.
TEST_F(AsioSocketTest, SendsKeepTheirOrderAndACloseCancelsTheRest) {
  std::string received;
  auto listener = collectingListener(received);
  auto client = factory_.createSocket(AF_INET, SOCK_STREAM, 0);
  const std::string big(256 * 1024, 'b');
  std::vector<std::string> done;
  client->connect(listener->localAddress(), [&](int error) {
    ASSERT_EQ(error, 0);
    for (const std::string& piece : {big, std::string("one"), std::string("two")}) {
      client->send(chainOf(piece), [&, piece](int error, std::size_t bytes) {
        EXPECT_EQ(error, 0);
        EXPECT_EQ(bytes, piece.size());
        done.push_back(piece.substr(0, 3));
        if (done.size() == 3) client->close();
      });
    }
  });
  run();
  EXPECT_EQ(done, (std::vector<std::string>{"bbb", "one", "two"}));
  EXPECT_EQ(received, big + "onetwo");
  listener->close();

  // A peer that reads nothing, and small socket buffers: the big write
  // fills them and waits for room.
  const int small = 4096;
  auto silent = factory_.createListener(AF_INET, SOCK_STREAM, 0);
  silent->setOption(SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  silent->bind(SocketAddress(AF_INET, SocketAddress::Loopback, 0));
  silent->listen(1);
  silent->accept([&](int, std::shared_ptr<AsyncSocket> s) { served_ = s; });
  auto writer = factory_.createSocket(AF_INET, SOCK_STREAM, 0);
  writer->setOption(SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::vector<int> errors;
  writer->connect(silent->localAddress(), [&](int error) {
    ASSERT_EQ(error, 0);
    for (const std::string& piece : {big, std::string("w")}) {
      writer->send(chainOf(piece), [&](int error, std::size_t) {
        errors.push_back(error);
        if (errors.size() == 2) stop();
      });
    }
    writer->close();
  });
  run();
  EXPECT_EQ(errors, (std::vector<int>{ECANCELED, ECANCELED}));
  silent->close();
}

// A write to a peer that has gone fails with the socket's error; it must
// not raise SIGPIPE, which would end this test's process.
TEST_F(AsioSocketTest, WritingToAVanishedPeerFailsTheWriteOnly) {
  auto listener = factory_.createListener(AF_INET, SOCK_STREAM, 0);
  listener->bind(SocketAddress(AF_INET, SocketAddress::Loopback, 0));
  listener->listen(1);
  listener->accept([&](int, std::shared_ptr<AsyncSocket> s) {
    s->close();
    stop();
  });
  auto client = factory_.createSocket(AF_INET, SOCK_STREAM, 0);
  client->connect(listener->localAddress(), [](int error) { ASSERT_EQ(error, 0); });
  run();
  const int error = writeUntilRefused(*client);
  EXPECT_TRUE(error == EPIPE || error == ECONNRESET) << error;
  client->close();
  listener->close();
}

TEST_F(AsioSocketTest, ConnectToAClosedPortIsAConnectionFailure) {
  auto listener = factory_.createListener(AF_INET, SOCK_STREAM, 0);
  listener->bind(SocketAddress(AF_INET, SocketAddress::Loopback, 0));
  const SocketAddress unused = listener->localAddress();  // bound, never listening
  const int result = connect(*factory_.createSocket(AF_INET, SOCK_STREAM, 0), unused);
  EXPECT_EQ(result, ECONNREFUSED);
  EXPECT_TRUE(isConnectionFailure(result));
  EXPECT_FALSE(isConnectionFailure(EAGAIN));
  EXPECT_FALSE(isConnectionFailure(0));
}

TEST_F(AsioSocketTest, UdpSendToAndReceiveFrom) {
  auto a = udpOnLoopback();
  auto b = udpOnLoopback();
  BufferChainPtr inbound(pool_.allocate(32));
  SocketAddress sender;
  std::string got;
  b->receiveFrom(inbound, [&](int error, std::size_t bytes, const SocketAddress& from) {
    EXPECT_EQ(error, 0);
    got = firstBytes(inbound, bytes);
    sender = from;
    // Answer over a connected socket the other way.
    b->connect(from, [&](int error) {
      EXPECT_EQ(error, 0);
      b->send(chainOf("pong"), {});
    });
  });
  a->sendTo(chainOf("ping, twelve"), b->localAddress(), [](int error, std::size_t bytes) {
    EXPECT_EQ(error, 0);
    EXPECT_EQ(bytes, 12u);
  });
  BufferChainPtr reply(pool_.allocate(16));
  std::size_t replyBytes = 0;
  a->receive(reply, [&](int error, std::size_t bytes) {
    EXPECT_EQ(error, 0);
    replyBytes = bytes;
    stop();
  });
  run();
  EXPECT_EQ(got, "ping, twelve");
  EXPECT_EQ(sender, a->localAddress());
  EXPECT_EQ(firstBytes(reply, replyBytes), "pong");
}

// Something a callback is bound to, which must still be there when it runs.
struct Target {
  int calls = 0;
  std::size_t bytes = 0;
};

TEST_F(AsioSocketTest, ReleasedSocketStillCompletesWhatIsPending) {
  auto receiver = udpOnLoopback();
  const SocketAddress where = receiver->localAddress();
  auto target = std::make_shared<Target>();
  BufferChainPtr inbound(pool_.allocate(16));
  receiver->receiveFrom(inbound, [target, inbound, this](int, std::size_t, const SocketAddress&) {
    ++target->calls;
    stop();
  });
  std::weak_ptr<Target> watch = target;
  target.reset();
  inbound.reset();
  receiver.reset();  // the pending receive keeps the socket and the callback

  auto sender = udpOnLoopback();
  auto sendTarget = std::make_shared<Target>();
  sender->sendTo(chainOf("late"), where, [sendTarget](int error, std::size_t bytes) {
    ++sendTarget->calls;
    sendTarget->bytes = error == 0 ? bytes : 0;
  });
  sender.reset();
  ASSERT_FALSE(watch.expired());
  run();
  EXPECT_EQ(sendTarget->calls, 1);
  EXPECT_EQ(sendTarget->bytes, 4u);
  EXPECT_TRUE(watch.expired()) << "the completed operation let go of its callback";
  EXPECT_EQ(pool_.freeBuffers(), pool_.totalBuffers());
}

TEST_F(AsioSocketTest, ReleasedStreamSocketFinishesItsSend) {
  std::string received;
  auto listener = collectingListener(received);
  auto target = std::make_shared<Target>();
  const std::string big(256 * 1024, 'z');  // more than the socket buffers take at once
  auto client = factory_.createSocket(AF_INET, SOCK_STREAM, 0);
  client->connect(listener->localAddress(), [&, target](int error) {
    ASSERT_EQ(error, 0);
    client->send(chainOf(big), [target](int error, std::size_t bytes) {
      ++target->calls;
      target->bytes = error == 0 ? bytes : 0;
    });
    client.reset();  // released with the write outstanding; closes once it is done
  });
  run();
  EXPECT_EQ(target->calls, 1);
  EXPECT_EQ(target->bytes, big.size());
  EXPECT_EQ(received, big);
  listener->close();
}

TEST_F(AsioSocketTest, CloseCancelsPendingOperations) {
  auto socket = udpOnLoopback();
  int result = 0;
  socket->receive(BufferChainPtr(pool_.allocate(8)), [&](int error, std::size_t) {
    result = error;
    stop();
  });
  auto listener = factory_.createListener(AF_INET, SOCK_STREAM, 0);
  listener->bind(SocketAddress(AF_INET, SocketAddress::Loopback, 0));
  listener->listen(1);
  int acceptResult = 0;
  bool acceptedNull = false;
  listener->accept([&](int error, std::shared_ptr<AsyncSocket> accepted) {
    acceptResult = error;
    acceptedNull = !accepted;
  });
  listener->close();
  socket->close();
  socket->close();
  run();
  EXPECT_EQ(result, ECANCELED);
  EXPECT_EQ(acceptResult, ECANCELED);
  EXPECT_TRUE(acceptedNull);
}

TEST_F(AsioSocketTest, SynchronousFailuresThrow) {
  auto capture = testing::LogCapture::install();
  auto first = udpOnLoopback();
  const SocketAddress taken = first->localAddress();
  auto second = factory_.createSocket(AF_INET, SOCK_DGRAM, 0);
  try {
    second->bind(taken);
    ADD_FAILURE() << "bound twice";
  } catch (const SocketError& e) {
    EXPECT_EQ(e.error(), EADDRINUSE);
  }
  EXPECT_TRUE(capture->contains("Failed to bind to " + taken.toString() + ": " + std::to_string(EADDRINUSE)));

  int size = 65536;
  first->setOption(SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  int readBack = 0;
  std::size_t length = sizeof(readBack);
  first->getOption(SOL_SOCKET, SO_RCVBUF, &readBack, length);
  EXPECT_EQ(length, sizeof(readBack));
  EXPECT_GE(readBack, size);
  EXPECT_EQ(thrownText([&] { first->setOption(SOL_SOCKET, 9999, &size, sizeof(size)); }), "setsockopt failed");
  EXPECT_EQ(thrownText([&] { first->getOption(SOL_SOCKET, 9999, &readBack, length); }), "getsockopt failed");
}

TEST(MulticastTest, MembershipOptions) {
  testing::FakeSocket socket(std::make_shared<testing::ManualReactor>());
  const SocketAddress group(AF_INET, "239.1.2.3", 0);
  const SocketAddress local(AF_INET, "198.18.0.5", 0);
  joinMulticastGroup(socket, group, local);
  EXPECT_EQ(socket.options.count({IPPROTO_IP, IP_ADD_MEMBERSHIP}), 1u);
  EXPECT_EQ(socket.optionBytes, (std::vector<uint8_t>{239, 1, 2, 3, 198, 18, 0, 5}));
  leaveMulticastGroup(socket, group, local);
  EXPECT_EQ(socket.options.count({IPPROTO_IP, IP_DROP_MEMBERSHIP}), 1u);
  EXPECT_EQ(socket.options.size(), 2u);
  const SocketAddress v6(AF_INET6, "ff02::1", 0);
  EXPECT_EQ(thrownText([&] { joinMulticastGroup(socket, v6, local); }),
            "joinMulticastGroup: Address types not supported");
  EXPECT_EQ(thrownText([&] { leaveMulticastGroup(socket, group, SocketAddress()); }),
            "leaveMulticastGroup: Address types not supported");
}

}  // namespace
}  // namespace quorvel
