#include "app/client_connection.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/http_fakes.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sctp/sctp_fixture.h"
#include "tests/support/wall_clock_steps.h"

namespace quorvel {
namespace ferrule {
namespace {

using testing::Completion;
using testing::FakeClientResponse;
using testing::FakeHttpClient;
using testing::LogCapture;
using testing::p2p;

// A client connection on the device's end of a real SCTP link over fake ICE
// sessions; the test plays the remote client on the other end and the target
// host behind the fake HTTP client.
class ClientConnectionTest : public testing::SctpFixture {
 protected:
  ClientConnectionTest() {
    capture = LogCapture::install();
    connection = std::make_shared<ClientConnection>(reactor, deviceLink, bufferPool, http, "camera.local",
                                                    [this](ClientConnection* closed) {
                                                      EXPECT_EQ(closed, connection.get());
                                                      ++closes;
                                                    });
    connection->start();
  }
  // What is still queued for the relays holds buffers of this pool: it runs
  // before the pool goes.
  ~ClientConnectionTest() override {
    *alive = false;
    connection.reset();
    run(100);
  }

  // A client connection from `port` that has been accepted.
  std::shared_ptr<AsyncSocket> open(uint16_t port) {
    Completion connected;
    std::shared_ptr<AsyncSocket> socket = connectFrom(port, connected);
    run(100);
    EXPECT_EQ(connected.error, 0);
    return socket;
  }

  // The target answers the last request with `body`, in pieces, as fast as
  // the relay takes them.
  void answer(const std::string& body, std::size_t piece = 10000) {
    std::shared_ptr<FakeClientResponse> response = http->last().respond(200, "OK");
    for (std::size_t at = 0; at < body.size(); at += piece) {
      response->put(body.substr(at, piece));
      for (int i = 0; i < 1000 && response->source.isBlocked(); ++i) run(1);
    }
    response->end();
    http->last().complete();
  }

  std::shared_ptr<BufferPool> bufferPool = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<FakeHttpClient> http = std::make_shared<FakeHttpClient>();
  std::shared_ptr<LogCapture> capture;
  int closes = 0;
  std::shared_ptr<ClientConnection> connection;
};

TEST_F(ClientConnectionTest, RelaysAVideoRequestOverSctp) {
  std::shared_ptr<AsyncSocket> stream = open(5000);
  EXPECT_EQ(connection->streamCount(), 1u);
  EXPECT_FALSE(connection->idleTimerRunning());
  sendText(*stream, "id=7&q=hd");
  run(50);
  ASSERT_EQ(http->requests.size(), 1u);
  EXPECT_EQ(http->last().path, "/video.vdo?id=7&q=hd");

  std::string body(300000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i % 251);
  answer(body);
  // The whole body, then the end of the stream.
  EXPECT_EQ(readAll(*stream, body.size() + 1), body);
  run(10);
  EXPECT_EQ(connection->streamCount(), 0u);
  EXPECT_TRUE(connection->idleTimerRunning());
}

TEST_F(ClientConnectionTest, ConnectionsOnOneSessionEachGetARelay) {
  std::shared_ptr<AsyncSocket> first = open(5000);
  std::shared_ptr<AsyncSocket> second = open(5001);
  EXPECT_EQ(connection->streamCount(), 2u);
  sendText(*first, "a=1");
  sendText(*second, "b=2");
  run(50);
  ASSERT_EQ(http->requests.size(), 2u);
  EXPECT_EQ(http->requests[0]->path, "/video.vdo?a=1");
  EXPECT_EQ(http->requests[1]->path, "/video.vdo?b=2");

  first->close();
  run(100);
  EXPECT_EQ(connection->streamCount(), 1u);
  EXPECT_FALSE(connection->idleTimerRunning());
  EXPECT_FALSE(capture->contains("All connections closed, starting idle timer"));
  second->close();
  run(100);
  EXPECT_EQ(connection->streamCount(), 0u);
  EXPECT_TRUE(capture->contains("All connections closed, starting idle timer"));
}

// One session serves a bounded number of connections; those beyond are
// shut down as they come and leave the others alone.
TEST_F(ClientConnectionTest, ConnectionsBeyondTheBoundAreClosedAsTheyCome) {
  std::vector<std::shared_ptr<AsyncSocket>> streams;
  for (std::size_t i = 0; i < ClientConnection::MaxConnections; ++i) {
    streams.push_back(open(static_cast<uint16_t>(5000 + i)));
    sendText(*streams.back(), "q=" + std::to_string(i));
  }
  run(50);
  EXPECT_EQ(connection->streamCount(), ClientConnection::MaxConnections);
  std::shared_ptr<AsyncSocket> extra = open(6000);
  const Completion& ended = receiveText(*extra, 100);
  run(500);
  EXPECT_TRUE(ended.done);
  EXPECT_EQ(ended.bytes, 0u);
  EXPECT_EQ(connection->streamCount(), ClientConnection::MaxConnections);
  EXPECT_EQ(http->requests.size(), ClientConnection::MaxConnections);
  EXPECT_EQ(capture->count("Connection limit of 8 reached, closing SCTP connection from p2p:6000"), 1u);

  // A place that frees up is taken by the next one.
  streams.front()->close();
  run(500);
  std::shared_ptr<AsyncSocket> next = open(6001);
  EXPECT_EQ(connection->streamCount(), ClientConnection::MaxConnections);
  sendText(*next, "q=next");
  run(50);
  EXPECT_EQ(http->last().path, "/video.vdo?q=next");
}

TEST_F(ClientConnectionTest, ClosesAfter30sWhenNoConnectionEverComes) {
  reactor->advance(Duration::seconds(29));
  EXPECT_EQ(closes, 0);
  reactor->advance(Duration::seconds(2));
  EXPECT_EQ(closes, 1);
  EXPECT_EQ(capture->count("No incoming connection for 30s, closing"), 1u);
}

TEST_F(ClientConnectionTest, AConnectionWithinThePeriodCancelsTheIdleClose) {
  // Each connection asks for a video the target is slow to send.
  reactor->advance(Duration::seconds(29));
  std::shared_ptr<AsyncSocket> stream = open(5000);
  sendText(*stream, "q=1");
  reactor->advance(Duration::seconds(60));
  EXPECT_EQ(closes, 0);
  stream->close();
  run(100);
  reactor->advance(Duration::seconds(29));
  std::shared_ptr<AsyncSocket> again = open(5001);
  sendText(*again, "q=2");
  reactor->advance(Duration::seconds(60));
  EXPECT_EQ(closes, 0);
  EXPECT_FALSE(capture->contains("No incoming connection for 30s, closing"));
}

// A connection that never sends its query does not pin the session: it is
// closed after the idle period, and the session goes idle like any other.
TEST_F(ClientConnectionTest, AConnectionThatNeverAsksLetsTheSessionGoIdle) {
  std::shared_ptr<AsyncSocket> silent = open(5000);
  const Completion& ended = receiveText(*silent, 100);
  reactor->advance(ClientConnection::IdlePeriod + Duration::seconds(1));
  EXPECT_EQ(connection->streamCount(), 0u);
  EXPECT_TRUE(ended.done);
  EXPECT_EQ(ended.bytes, 0u);  // an orderly end of the association
  EXPECT_EQ(closes, 0);
  reactor->advance(ClientConnection::IdlePeriod);
  EXPECT_EQ(closes, 1);
  EXPECT_TRUE(http->requests.empty());
}

// The idle period is monotonic time: a step of the wall clock neither closes
// the connection early nor keeps it for hours.
TEST(ClientConnectionClock, AWallClockStepMovesNoIdleClose) {
  struct Run : ClientConnectionTest {
    void TestBody() override {}
    std::vector<int64_t> trace(Duration step) {
      reactor->advance(Duration::seconds(15));
      reactor->stepWallClock(step);
      std::vector<int64_t> seen;
      for (int second = 16; second <= 32; ++second) {
        reactor->advance(Duration::seconds(1));
        seen.push_back(closes);
      }
      return seen;
    }
  };
  testing::expectNoWallClockStepMatters([](Duration step) { return Run().trace(step); });
}

// Going away mid-transfer (the daemon stopping) closes the link and the ICE
// session, and the client hears of it first: its association ends at once
// rather than when its own retransmissions give up.
TEST_F(ClientConnectionTest, GoingAwayTellsTheClientThenClosesTheLinkAndTheIceSession) {
  std::shared_ptr<AsyncSocket> stream = open(5000);
  sendText(*stream, "q=1");
  run(50);
  std::shared_ptr<FakeClientResponse> response = http->last().respond(200, "OK");
  for (int piece = 0; piece < 40 && response->put(std::string(50000, 'v')); ++piece) run(10);
  run(500);  // the client reads nothing: its window fills
  connection.reset();
  EXPECT_TRUE(sessions.device->closed);
  // What had arrived may still be read first; the end follows it.
  const Completion& got = readToTheEnd(*stream);
  ASSERT_TRUE(got.done);
  EXPECT_NE(got.error, 0);
}

// A link whose listener fails its first `failures` accepts with EIO, each
// reported from a later event as the real one does, then waits.
class FailingAccepts : public ::testing::Test {
 protected:
  struct Listener : AsyncListener {
    Listener(std::shared_ptr<testing::ManualReactor> reactor, int failures)
        : reactor(std::move(reactor)), failures(failures) {}
    void bind(const SocketAddress&) override {}
    void listen(int) override {}
    void accept(const AcceptCallback& callback) override {
      acceptTimes.push_back(reactor->steadyNow());
      if (failures-- <= 0) return;
      reactor->post(token, [callback] { callback(EIO, nullptr); });
    }
    void setOption(int, int, const void*, std::size_t) override {}
    void getOption(int, int, void*, std::size_t&) override {}
    SocketAddress localAddress() const override { return SocketAddress(); }
    void close() override {}

    std::shared_ptr<testing::ManualReactor> reactor;
    int failures;
    std::vector<SteadyTime> acceptTimes;
    LifetimeToken token = makeLifetimeToken();
  };
  struct Link : IceSessionLink {
    std::shared_ptr<AsyncSocket> createSocket(int, int, int) override { return nullptr; }
    std::shared_ptr<AsyncListener> createListener(int, int, int) override { return listener; }
    void close() override {}
    std::shared_ptr<Listener> listener;
  };

  void start(int failures) {
    link->listener = std::make_shared<Listener>(reactor, failures);
    connection = std::make_shared<ClientConnection>(reactor, link, std::make_shared<BufferPool>(512, 0, 0),
                                                    std::make_shared<FakeHttpClient>(), "camera.local",
                                                    [](ClientConnection*) {});
    connection->start();
  }

  std::shared_ptr<testing::ManualReactor> reactor = std::make_shared<testing::ManualReactor>();
  std::shared_ptr<Link> link = std::make_shared<Link>();
  std::shared_ptr<LogCapture> capture = LogCapture::install();
  std::shared_ptr<ClientConnection> connection;
};

TEST_F(FailingAccepts, APersistentErrorBacksOffAndIsLoggedOnce) {
  start(1000);
  const SteadyTime begin = reactor->steadyNow();
  reactor->advance(Duration::seconds(20));
  const std::vector<SteadyTime>& times = link->listener->acceptTimes;
  // 0, 0.1, 0.3, 0.7, 1.5, 3.1, 6.3, then every 5 s.
  ASSERT_EQ(times.size(), 9u);
  EXPECT_EQ(times[1] - begin, ClientConnection::FirstAcceptRetry);
  EXPECT_EQ(times[8] - times[7], ClientConnection::MaxAcceptRetry);
  EXPECT_EQ(capture->count("SCTP accept failed with code 5, retrying with back-off"), 1u);
}

}  // namespace
}  // namespace ferrule
}  // namespace quorvel
