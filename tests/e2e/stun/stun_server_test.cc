// The agent over real UDP sockets: a Binding request to the coturn server
// that stun_server_test.py started on loopback. Retransmission timing is the
// unit tests' job (fake time).

#include <cstdlib>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "core/asio_reactor.h"
#include "core/random_source.h"
#include "net/asio_socket_factory.h"
#include "net/buffer_pool.h"
#include "stun/integrity.h"
#include "stun/net_stun_agent.h"

namespace quorvel {
namespace stun {
namespace {

// The agent with a real reactor and a bound UDP socket whose datagrams it
// classifies.
class AgentOnLoopback {
 public:
  AgentOnLoopback() {
    socket_ = factory_.createSocket(2, 2, 17);
    socket_->bind(SocketAddress(2, SocketAddress::Loopback, 0));
    agent_ = std::make_shared<NetStunAgent>(reactor_, pool_, Duration::milliseconds(5));
    receive();
  }
  ~AgentOnLoopback() { socket_->close(); }

  MessagePtr bindingRequest() {
    auto message = std::make_shared<Message>(Message::Request, Message::MethodBinding, makeTransactionId(random_));
    message->addStringAttribute(Message::Software, "Quorvel ICE Agent");
    return message;
  }

  // Runs the loop until the request ends, at most `bound`.
  void runRequest(const MessagePtr& request, uint16_t port, Duration rto, Duration limit, Duration bound) {
    agent_->sendRequest(request, socket_, SocketAddress(2, "127.0.0.1", port), rto, limit, "",
                        [this](int error, const MessagePtr& response, const SocketAddress& from,
                               const SocketAddress& local) {
                          ++calls;
                          this->error = error;
                          this->response = response;
                          this->from = from;
                          this->local = local;
                          reactor_->stop();
                        });
    reactor_->scheduleAfter(token_, bound, [this]() { reactor_->stop(); });
    reactor_->run();
  }

  SocketAddress localAddress() const { return socket_->localAddress(); }

  int calls = 0;
  int error = -1;
  MessagePtr response;
  SocketAddress from, local;

 private:
  void receive() {
    BufferChainPtr buffers(pool_->allocate(1500));
    socket_->receiveFrom(buffers, [this, buffers](int error, std::size_t bytes, const SocketAddress& sender) {
      if (error) return;  // closed
      std::vector<uint8_t> datagram(bytes);
      copyFromChain(buffers.chain().begin(), buffers.chain().begin() + bytes, datagram.data());
      agent_->handleDatagram(socket_, sender, datagram.data(), datagram.size(), false, {});
      receive();
    });
  }

  // Declared first: operations still queued in the reactor hold buffers,
  // which must go back to a pool that still exists.
  std::shared_ptr<BufferPool> pool_ = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<AsioReactor> reactor_ = std::make_shared<AsioReactor>();
  AsioSocketFactory factory_{reactor_};
  PseudoRandomSource random_{std::make_shared<SystemTimeProvider>()};
  std::shared_ptr<AsyncSocket> socket_;
  std::shared_ptr<NetStunAgent> agent_;
  LifetimeToken token_ = makeLifetimeToken();
};

TEST(StunServerTest, BindingRequestReturnsTheSocketsOwnAddress) {
  const char* portText = std::getenv("FERRULE_STUN_PORT");
  if (!portText) GTEST_SKIP() << "run through stun_server_test.py, which starts the server";
  const uint16_t port = static_cast<uint16_t>(std::atoi(portText));

  AgentOnLoopback client;
  const MessagePtr request = client.bindingRequest();
  client.runRequest(request, port, Duration::milliseconds(100), Duration::seconds(5), Duration::seconds(10));

  ASSERT_EQ(client.calls, 1);
  ASSERT_EQ(client.error, 0) << "coturn did not answer on port " << port;
  ASSERT_TRUE(client.response);
  EXPECT_EQ(client.response->messageClass(), Message::SuccessResponse);
  EXPECT_EQ(client.response->method(), Message::MethodBinding);
  EXPECT_EQ(client.response->transactionId(), request->transactionId());
  EXPECT_EQ(client.from, SocketAddress(2, "127.0.0.1", port));
  EXPECT_EQ(client.local, client.localAddress());
  EXPECT_EQ(client.response->getMappedAddress(), client.localAddress());
  // The server speaks the current framing: the XOR form is there.
  EXPECT_TRUE(client.response->findAttribute(Message::XorMappedAddress));
}

}  // namespace
}  // namespace stun
}  // namespace quorvel
