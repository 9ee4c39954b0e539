#include "app/stream_relay.h"

#include <cerrno>
#include <memory>
#include <string>

#include <boost/asio/error.hpp>
#include <gtest/gtest.h>

#include "tests/support/http_fakes.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"
#include "tests/unit/http/fake_network.h"

namespace quorvel {
namespace ferrule {
namespace {

using testing::FakeClientRequest;
using testing::FakeClientResponse;
using testing::FakeHttpClient;
using testing::FakeSocket;
using testing::ManualReactor;

// A stream relay on a fake connection (the test plays the remote client) and
// a fake HTTP client (the test plays the target host).
class StreamRelayTest : public ::testing::Test {
 public:
  static constexpr Duration QueryWait = Duration::seconds(30);
  static constexpr unsigned MaxRequestBuffers = StreamRelay::MaxRequestSize / 512;

  StreamRelayTest() { open(); }

  // A started relay on a fresh connection.
  void open() {
    socket = std::make_shared<FakeSocket>(reactor);
    closes = 0;
    relay = std::make_shared<StreamRelay>(reactor, socket, pool, http, "camera.local", QueryWait,
                                          [this](StreamRelay* closed) {
                                            EXPECT_EQ(closed, relay.get());
                                            ++closes;
                                          });
    relay->start();
  }

  // The client's query arrives.
  void query(const std::string& text) {
    ASSERT_TRUE(socket->receiving());
    socket->deliver(text);
    reactor->runDue();
  }

  FakeClientRequest& target() { return http->last(); }

  std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<ManualReactor> reactor = std::make_shared<ManualReactor>();
  std::shared_ptr<FakeSocket> socket;
  std::shared_ptr<FakeHttpClient> http = std::make_shared<FakeHttpClient>();
  int closes = 0;
  std::shared_ptr<StreamRelay> relay;
};

TEST_F(StreamRelayTest, QueryBecomesAGetOfTheVideoWhoseBodyBytesGoBackOneSendAtATime) {
  query("camera=2&res=640x480");
  ASSERT_EQ(http->requests.size(), 1u);
  EXPECT_EQ(target().method, "GET");
  EXPECT_EQ(target().scheme, "http");
  EXPECT_EQ(target().hostValue, "camera.local");
  EXPECT_EQ(target().connectHost, "camera.local");
  EXPECT_EQ(target().path, "/video.vdo?camera=2&res=640x480");
  EXPECT_EQ(target().sends, 1);
  EXPECT_EQ(target().sentBody, "");
  std::shared_ptr<FakeClientResponse> response =
      target().respond(200, "OK", {{"Content-Type", "video/x-test"}, {"Content-Length", "9"}});
  response->put("abc");
  response->put("def");
  EXPECT_FALSE(response->put("ghi"));  // the relay holds the target back
  EXPECT_EQ(socket->sends, 1);
  EXPECT_EQ(socket->sent, "abc");
  reactor->runDue();
  EXPECT_EQ(socket->sent, "abcdefghi");
  EXPECT_EQ(socket->sends, 3);
  response->end();
  target().complete();
  reactor->runDue();
  EXPECT_EQ(closes, 1);
  EXPECT_TRUE(socket->closed);
  EXPECT_EQ(target().cancels, 0);
}

TEST_F(StreamRelayTest, TheBodyStillQueuedWhenTheRequestFinishesIsSent) {
  query("id=1");
  std::shared_ptr<FakeClientResponse> response = target().respond(200, "OK");
  response->put("first");
  response->put("last");
  response->end();
  target().complete();
  EXPECT_EQ(closes, 0);
  reactor->runDue();
  EXPECT_EQ(socket->sent, "firstlast");
  EXPECT_EQ(closes, 1);
}

TEST_F(StreamRelayTest, DataDuringAResponseIsIgnored) {
  query("id=1");
  query("id=2");
  EXPECT_EQ(http->requests.size(), 1u);
  EXPECT_TRUE(socket->receiving());
  EXPECT_EQ(closes, 0);
}

TEST_F(StreamRelayTest, EachWayOfEndingClosesOnceAndStopsTheTarget) {
  const struct {
    const char* name;
    void (*end)(StreamRelayTest& t);
    int cancels;  // of the target request
  } cases[] = {
      {"empty body",
       [](StreamRelayTest& t) {
         t.target().response->end();
         EXPECT_EQ(t.socket->sends, 0);
       },
       0},
      {"client goes", [](StreamRelayTest& t) { t.socket->deliverClose(); }, 1},
      {"client fails", [](StreamRelayTest& t) { t.socket->close(); }, 1},
      {"target fails",
       [](StreamRelayTest& t) { t.target().complete(boost::asio::error::connection_refused); }, 0},
      {"send fails",
       [](StreamRelayTest& t) {
         t.socket->failSends = true;
         t.target().response->put("x");
         t.target().response->put("y");
       },
       1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    open();
    query("id=1");
    target().respond(200, "OK");
    c.end(*this);
    reactor->runDue();
    target().complete();  // late news from the target changes nothing
    reactor->runDue();
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(target().cancels, c.cancels);
    EXPECT_TRUE(socket->closed);
  }
}

// A connection that never asks would hold its association, and with it the
// client's session, for as long as the client keeps the path open.
TEST_F(StreamRelayTest, AConnectionWithoutAQueryClosesAfterTheQueryWait) {
  const auto capture = testing::LogCapture::install();
  reactor->advance(QueryWait - Duration::milliseconds(1));
  EXPECT_EQ(closes, 0);
  reactor->advance(Duration::milliseconds(1));
  EXPECT_EQ(closes, 1);
  EXPECT_TRUE(socket->closed);
  EXPECT_EQ(capture->count("No video request for 30s, closing"), 1u);
}

// With the pool spent there is nowhere to read a query into: the connection
// goes at once, as a disconnection for want of memory.
TEST_F(StreamRelayTest, NoBuffersForTheQueryClosesTheConnection) {
  const auto capture = testing::LogCapture::install();
  relay.reset();  // first the fixture's relay and its read, with the pool they use
  reactor->runDue();
  pool = std::make_shared<BufferPool>(512, 0, MaxRequestBuffers - 1);
  open();
  EXPECT_EQ(closes, 1);
  EXPECT_TRUE(socket->closed);
  EXPECT_FALSE(socket->receiving());
  EXPECT_EQ(capture->count("Stream disconnected, code " + std::to_string(ENOMEM)), 1u);
}

TEST_F(StreamRelayTest, AQueryWithinTheWaitKeepsTheConnectionForItsWholeTransfer) {
  reactor->advance(QueryWait - Duration::seconds(1));
  query("id=1");
  target().respond(200, "OK")->put("slow");
  reactor->advance(QueryWait * 10);
  EXPECT_EQ(closes, 0);
  EXPECT_FALSE(socket->closed);
}

TEST_F(StreamRelayTest, DestroyingStopsTheTargetWithoutTheCallback) {
  query("id=1");
  FakeClientRequest& request = target();
  relay.reset();
  EXPECT_EQ(request.cancels, 1);
  EXPECT_TRUE(socket->closed);
  EXPECT_EQ(closes, 0);
}

}  // namespace
}  // namespace ferrule
}  // namespace quorvel
