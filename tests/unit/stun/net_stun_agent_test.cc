#include "stun/net_stun_agent.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "net/buffer_pool.h"
#include "stun/integrity.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"
#include "tests/support/wall_clock_steps.h"
#include "tests/unit/http/fake_network.h"

namespace quorvel {
namespace stun {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

using testing::FakeSocket;
using testing::LogCapture;
using testing::ManualReactor;

struct Outcome {
  int calls = 0;
  int error = -1;
  MessagePtr response;
  SocketAddress from;
  SocketAddress local;
};

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log::setLevel("stunagent", log::Debug);
    capture_ = LogCapture::install();
  }

  MessagePtr request(uint8_t idByte) {
    TransactionId id{};
    id.fill(idByte);
    return std::make_shared<Message>(Message::Request, Message::MethodBinding, id);
  }

  // A response to `request`, as a datagram.
  static std::vector<uint8_t> answer(const Message& request, const std::string& key = "",
                                     int messageClass = Message::SuccessResponse) {
    Message response(messageClass, Message::MethodBinding, request.transactionId());
    response.addXorMappedAddress(SocketAddress(2, "198.18.0.7", 40000));
    if (!key.empty()) addMessageIntegrity(response, key);
    addFingerprint(response);
    return response.bytes();
  }

  // Sends `message` to the server with an RTO of 100 ms; the answer lands in `outcome`.
  RequestHandle send(const MessagePtr& message, Outcome& outcome, Duration limit = Duration::seconds(1),
                     const std::string& key = "", Duration rto = Duration::milliseconds(100)) {
    return agent_->sendRequest(
        message, socket_, server_, rto, limit, key,
        [&outcome](int error, const MessagePtr& response, const SocketAddress& from, const SocketAddress& local) {
          ++outcome.calls;
          outcome.error = error;
          outcome.response = response;
          outcome.from = from;
          outcome.local = local;
        });
  }

  // Hands a datagram to the agent as if it came from `from`.
  bool arrive(const std::vector<uint8_t>& bytes, bool requireFingerprint = true,
              const StunAgent::RequestHandler& handler = {}, const SocketAddress& from = SocketAddress()) {
    return agent_->handleDatagram(socket_, from.valid() ? from : server_, bytes.data(), bytes.size(),
                                  requireFingerprint, handler);
  }

  static std::vector<int64_t> sendTimesMs(const FakeSocket& socket, SteadyTime start) {
    std::vector<int64_t> times;
    for (const FakeSocket::Datagram& s : socket.datagrams) times.push_back((s.at - start).count() / 1000);
    return times;
  }

  std::shared_ptr<ManualReactor> reactor_ = std::make_shared<ManualReactor>();
  std::shared_ptr<BufferPool> pool_ = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<FakeSocket> socket_ =
      std::make_shared<FakeSocket>(reactor_, nullptr, SocketAddress(2, "127.0.0.1", 5000));
  const SocketAddress server_{2, "127.0.0.1", 3478};
  std::shared_ptr<NetStunAgent> agent_ = std::make_shared<NetStunAgent>(reactor_, pool_, Duration());
  std::shared_ptr<LogCapture> capture_;
};

TEST_F(AgentTest, OnlyRequestsStartTransactions) {
  auto indication = std::make_shared<Message>(Message::Indication, 1, TransactionId{});
  EXPECT_THAT([&] { agent_->sendRequest(indication, socket_, server_, Duration::milliseconds(100), Duration::seconds(1), "", {}); },
              ThrowsMessage<std::logic_error>(StrEq("sendRequest: Not a request")));
  EXPECT_THROW(agent_->sendRequest(nullptr, socket_, server_, Duration(), Duration(), "", {}), std::logic_error);
  EXPECT_EQ(agent_->pendingCount(), 0u);
  EXPECT_TRUE(socket_->datagrams.empty());
}

TEST_F(AgentTest, RetransmitsWithDoublingRtoUntilTheTimeLimit) {
  // An RTO of zero sends once and waits out the limit.
  for (const int64_t rto : {100, 0}) {
    socket_->datagrams.clear();
    const SteadyTime start = reactor_->clock().now();
    Outcome outcome;
    const MessagePtr message = request(7);
    send(message, outcome, Duration::milliseconds(2000), "", Duration::milliseconds(rto));
    EXPECT_EQ(sendTimesMs(*socket_, start), std::vector<int64_t>{0});  // the first goes at once
    reactor_->advance(Duration::seconds(5));

    EXPECT_EQ(sendTimesMs(*socket_, start),
              (rto ? std::vector<int64_t>{0, 100, 300, 700, 1500} : std::vector<int64_t>{0}));
    for (const FakeSocket::Datagram& s : socket_->datagrams) {
      EXPECT_EQ(s.bytes, message->bytes());
      EXPECT_EQ(s.to, server_);
    }
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.error, ETIMEDOUT);
    EXPECT_FALSE(outcome.response);
    EXPECT_EQ(agent_->pendingCount(), 0u);
    EXPECT_EQ(reactor_->pending(), 0u);
  }
  // All its lines are debug lines of its own log.
  for (const LogCapture::Line& line : capture_->lines()) {
    EXPECT_EQ(line.log, "stunagent");
    EXPECT_EQ(line.level, log::Debug) << line.message;
  }
}

TEST_F(AgentTest, MatchesResponsesByIdAndChecksIntegrityOnlyWhenKeyed) {
  Outcome outcome;
  const MessagePtr message = request(9);
  send(message, outcome, Duration::seconds(10), "secret");
  reactor_->advance(Duration::milliseconds(50));

  // From a stranger, unsigned, signed with the wrong key: used up, ignored.
  EXPECT_TRUE(arrive(answer(*request(8), "secret")));
  EXPECT_TRUE(arrive(answer(*message)));
  EXPECT_TRUE(arrive(answer(*message, "guess")));
  EXPECT_EQ(outcome.calls, 0);
  EXPECT_EQ(agent_->pendingCount(), 1u);

  reactor_->advance(Duration::milliseconds(300));  // retransmissions went on meanwhile
  EXPECT_EQ(socket_->datagrams.size(), 3u);

  const SocketAddress from(2, "127.0.0.1", 3479);
  const std::vector<uint8_t> good = answer(*message, "secret", Message::ErrorResponse);
  EXPECT_TRUE(arrive(good, true, {}, from));
  EXPECT_EQ(outcome.calls, 1);
  EXPECT_EQ(outcome.error, 0);
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->messageClass(), Message::ErrorResponse);
  EXPECT_EQ(outcome.from, from);
  EXPECT_EQ(outcome.local, SocketAddress(2, "127.0.0.1", 5000));
  EXPECT_EQ(agent_->pendingCount(), 0u);

  reactor_->advance(Duration::seconds(20));
  EXPECT_EQ(socket_->datagrams.size(), 3u);
  // A duplicate of the answer finds nothing any more.
  EXPECT_TRUE(arrive(good, true, {}, from));
  EXPECT_EQ(outcome.calls, 1);

  // Without a key, any answer goes, signed or not.
  Outcome unkeyed;
  const MessagePtr plain = request(3);
  send(plain, unkeyed);
  EXPECT_TRUE(arrive(answer(*plain, "whatever"), false));
  EXPECT_EQ(unkeyed.error, 0);
  EXPECT_EQ(unkeyed.response->getMappedAddress(), SocketAddress(2, "198.18.0.7", 40000));
}

TEST_F(AgentTest, ClassifiesAndDispatchesIncomingDatagrams) {
  int defaultCalls = 0, ownCalls = 0;
  MessagePtr seen;
  agent_->setRequestHandler([&](const std::shared_ptr<AsyncSocket>&, const SocketAddress&, const MessagePtr& m) {
    ++defaultCalls;
    seen = m;
  });
  const StunAgent::RequestHandler own = [&](const std::shared_ptr<AsyncSocket>&, const SocketAddress&,
                                            const MessagePtr&) { ++ownCalls; };

  const std::vector<uint8_t> rtp = {0x80, 0x60, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_FALSE(arrive(rtp, false, own));
  EXPECT_TRUE(capture_->lines().empty());

  Message check = *request(5);
  check.addStringAttribute(Message::Username, "a:b");
  const std::vector<uint8_t> noFingerprint = check.bytes();
  EXPECT_FALSE(arrive(noFingerprint, true, own));
  EXPECT_TRUE(arrive(noFingerprint, false, own));
  EXPECT_EQ(ownCalls, 1);
  EXPECT_TRUE(arrive(noFingerprint, false));
  EXPECT_EQ(defaultCalls, 1);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->bytes(), noFingerprint);

  Message indication(Message::Indication, 1, TransactionId{});
  addFingerprint(indication);
  EXPECT_TRUE(arrive(indication.bytes(), true, own));
  EXPECT_EQ(ownCalls, 2);

  // STUN by cookie and length, but unparseable: used up, handed to nobody.
  std::vector<uint8_t> bad = indication.bytes();
  bad[0] = 0xC0;
  EXPECT_TRUE(arrive(bad, false, own));
  EXPECT_EQ(ownCalls, 2);
}

TEST_F(AgentTest, NoTwoSendsCloserThanTheMinimumInterval) {
  agent_ = std::make_shared<NetStunAgent>(reactor_, pool_, Duration::milliseconds(20));
  const SteadyTime start = reactor_->clock().now();
  for (uint8_t i = 1; i <= 4; ++i) {
    agent_->sendRequest(request(i), socket_, server_, Duration::milliseconds(30), Duration::milliseconds(900), "", {});
  }
  const Message response(Message::SuccessResponse, 1, TransactionId{});
  for (int i = 0; i < 30; ++i) {
    reactor_->advance(Duration::milliseconds(7));
    if (i % 3 == 0) agent_->sendMessage(socket_, response, server_);
  }
  reactor_->advance(Duration::seconds(2));

  const std::vector<int64_t> times = sendTimesMs(*socket_, start);
  ASSERT_GT(times.size(), 20u);
  EXPECT_EQ(times[0], 0);
  EXPECT_EQ(times[1], 20);  // the second request waited for its slot
  for (std::size_t i = 1; i < times.size(); ++i) EXPECT_GE(times[i] - times[i - 1], 20) << "send " << i;
  std::size_t responses = 0;
  for (const FakeSocket::Datagram& s : socket_->datagrams) responses += s.bytes == response.bytes();
  EXPECT_EQ(responses, 10u);
  EXPECT_EQ(agent_->pendingCount(), 0u);
}

// A response whose slot was claimed behind others must not hand back the
// later slot when it goes: the send after it would come too close.
TEST_F(AgentTest, ClaimedSlotsAreNotGivenBack) {
  agent_ = std::make_shared<NetStunAgent>(reactor_, pool_, Duration::milliseconds(20));
  const SteadyTime start = reactor_->clock().now();
  const Message response(Message::SuccessResponse, 1, TransactionId{});
  for (int i = 0; i < 3; ++i) agent_->sendMessage(socket_, response, server_);  // at 0, 20 and 40
  reactor_->advance(Duration::milliseconds(21));
  agent_->sendMessage(socket_, response, server_);
  agent_->sendRequest(request(1), socket_, server_, Duration::milliseconds(100), Duration::seconds(1), "", {});
  reactor_->advance(Duration::milliseconds(100));
  EXPECT_EQ(sendTimesMs(*socket_, start), (std::vector<int64_t>{0, 20, 40, 60, 80}));
}

// Retransmission, pacing and the time limit run on the monotonic clock: a
// step of the wall clock in the middle changes no send and no outcome.
TEST_F(AgentTest, AWallClockStepMovesNoSendAndNoTimeLimit) {
  testing::expectNoWallClockStepMatters([this](Duration step) {
    reactor_ = std::make_shared<ManualReactor>();
    socket_ = std::make_shared<FakeSocket>(reactor_, nullptr, SocketAddress(2, "127.0.0.1", 5000));
    agent_ = std::make_shared<NetStunAgent>(reactor_, pool_, Duration::milliseconds(20));
    const SteadyTime start = reactor_->clock().now();
    Outcome first, second;
    send(request(1), first, Duration::milliseconds(1000));
    send(request(2), second, Duration::milliseconds(700));
    reactor_->advance(Duration::milliseconds(150));
    reactor_->stepWallClock(step);
    agent_->sendMessage(socket_, Message(Message::SuccessResponse, 1, TransactionId{}), server_);
    reactor_->advance(Duration::seconds(2));

    std::vector<int64_t> seen = sendTimesMs(*socket_, start);
    seen.insert(seen.end(), {first.calls, first.error, second.calls, second.error});
    return seen;
  });
}

TEST_F(AgentTest, SocketFailuresEndTheTransactionNeverFromInsideTheCall) {
  const struct {
    bool failSends, throwOnSend, dropSocket;
    int error;
  } table[] = {{true, false, false, EPIPE}, {false, true, false, EPERM}, {false, false, true, ENOTCONN}};
  for (const auto& row : table) {
    socket_ = std::make_shared<FakeSocket>(reactor_, nullptr, SocketAddress(2, "127.0.0.1", 5000));
    socket_->failSends = row.failSends;
    socket_->throwOnSend = row.throwOnSend;
    Outcome outcome;
    send(request(1), outcome);
    EXPECT_EQ(outcome.calls, 0);
    if (row.dropSocket) socket_.reset();
    row.dropSocket ? reactor_->advance(Duration::milliseconds(100)) : reactor_->runDue();
    EXPECT_EQ(outcome.error, row.error);
    EXPECT_EQ(agent_->pendingCount(), 0u);
  }
}

TEST_F(AgentTest, CancelStopsWithoutCallingBack) {
  Outcome outcome, other;
  const RequestHandle handle = send(request(4), outcome);
  agent_->cancel(handle);
  agent_->cancel(handle + 100);
  reactor_->advance(Duration::seconds(2));
  EXPECT_EQ(socket_->datagrams.size(), 1u);
  EXPECT_EQ(outcome.calls, 0);
  // Each request has its own handle: cancelling the second leaves the first.
  send(request(5), other);
  agent_->cancel(send(request(6), outcome));
  reactor_->advance(Duration::seconds(2));
  EXPECT_EQ(outcome.calls, 0);
  EXPECT_EQ(other.calls, 1);
}

TEST_F(AgentTest, CallbacksMayStartAndCancelRequestsAndDropTheAgent) {
  const MessagePtr first = request(1), second = request(2);
  Outcome third;
  const RequestHandle thirdHandle = send(request(3), third);
  int secondDone = 0;
  const auto sendSecond = [&](int, const MessagePtr&, const SocketAddress&, const SocketAddress&) {
    agent_->cancel(thirdHandle);
    agent_->sendRequest(second, socket_, server_, Duration::milliseconds(100), Duration::seconds(1), "",
                        [&](int error, const MessagePtr&, const SocketAddress&, const SocketAddress&) {
                          secondDone = error == 0;
                          agent_.reset();  // the owner lets go from inside
                        });
  };
  agent_->sendRequest(first, socket_, server_, Duration::milliseconds(100), Duration::seconds(1), "", sendSecond);
  std::weak_ptr<NetStunAgent> weak = agent_;
  EXPECT_TRUE(arrive(answer(*first)));
  EXPECT_EQ(agent_->pendingCount(), 1u);
  const std::vector<uint8_t> two = answer(*second);
  weak.lock()->handleDatagram(socket_, server_, two.data(), two.size(), true, {});
  EXPECT_EQ(secondDone, 1);
  EXPECT_TRUE(weak.expired());
  reactor_->advance(Duration::seconds(2));  // nothing left to run
}

}  // namespace
}  // namespace stun
}  // namespace quorvel
