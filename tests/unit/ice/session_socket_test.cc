#include "ice/session_socket.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "tests/support/manual_reactor.h"

namespace quorvel {
namespace ice {
namespace {

// Every receive fails with the same error, a millisecond later.
class FailingSocket : public AsyncSocket {
 public:
  FailingSocket(testing::ManualReactor& reactor, int error) : reactor_(reactor), error_(error) {}
  void bind(const SocketAddress&) override {}
  void connect(const SocketAddress&, const ConnectCallback&) override {}
  void send(const BufferChainPtr&, const TransferCallback&) override {}
  void sendTo(const BufferChainPtr&, const SocketAddress&, const TransferCallback&) override {}
  void receive(const BufferChainPtr&, const TransferCallback&) override {}
  void receiveFrom(const BufferChainPtr&, const ReceiveFromCallback& callback) override {
    ++receives;
    const int error = error_;
    reactor_.scheduleAfter(token_, Duration::milliseconds(1), [callback, error]() { callback(error, 0, SocketAddress()); });
  }
  void setOption(int, int, const void*, std::size_t) override {}
  void getOption(int, int, void*, std::size_t&) override {}
  SocketAddress localAddress() const override { return SocketAddress(); }
  SocketAddress remoteAddress() const override { return SocketAddress(); }
  void close() override {}

  int receives = 0;

 private:
  testing::ManualReactor& reactor_;
  const int error_;
  LifetimeToken token_ = makeLifetimeToken();
};

TEST(SessionSocket, GoesOnReceivingOnlyAfterErrorsThatConcernOneDatagram) {
  const struct {
    int error;
    bool goesOn;
  } table[] = {{ECONNREFUSED, true}, {EHOSTUNREACH, true}, {ENOBUFS, true}, {EBADF, false}, {EINVAL, false}};
  for (const auto& row : table) {
    testing::ManualReactor reactor;
    const auto socket = std::make_shared<FailingSocket>(reactor, row.error);
    const auto session = std::make_shared<SessionSocket>(socket, SocketAddress(AF_INET, "10.0.0.2", 5000));
    int datagrams = 0;
    session->startReceiving(
        [&](const std::shared_ptr<SessionSocket>&, const SocketAddress&, const uint8_t*, std::size_t) { ++datagrams; });
    reactor.advance(Duration::microseconds(5500));
    EXPECT_EQ(row.goesOn ? 6 : 1, socket->receives) << row.error;
    EXPECT_EQ(0, datagrams);
  }
}

}  // namespace
}  // namespace ice
}  // namespace quorvel
