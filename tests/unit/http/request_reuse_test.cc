#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "chain_text.h"
#include "http/net_http_client.h"
#include "net/buffer_pool.h"
#include "tests/support/manual_reactor.h"
#include "tests/unit/http/fake_network.h"

namespace quorvel {
namespace {

using testing::FakeResolver;
using testing::FakeSocketFactory;
using testing::ManualReactor;

// What one use of a request saw.
struct Seen {
  int responses = 0;
  std::string head;
  std::string body;
  int ends = 0;
  int codes = 0;
  std::optional<boost::system::error_code> code;
};

// The client keeps its request objects between uses. Whatever one use did,
// the next starts from nothing, and nothing of an old use is reached again.
class RequestReuseTest : public ::testing::Test {
 protected:
  void SetUp() override { resolver->names["example"] = {"192.0.2.1"}; }

  std::shared_ptr<WebClientRequest> start(const std::string& method, const std::string& path, Seen& seen) {
    auto request = client->createRequest(method, "http", "example", "example", path);
    request->setResponseHandler([&seen](const std::shared_ptr<WebClientResponse>& response) {
      ++seen.responses;
      seen.head.assign(response->headers().data(), response->headers().size());
    });
    request->setBodyDataHandler([&seen](const BufferChainPtr& piece, bool end) {
      if (end) {
        ++seen.ends;
      } else {
        seen.body += testing::textOf(piece.chain());
      }
    });
    request->setErrorHandler([&seen](const boost::system::error_code& code) {
      ++seen.codes;
      seen.code = code;
    });
    return request;
  }

  void run() { reactor->runDue(); }

  std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<ManualReactor> reactor = std::make_shared<ManualReactor>();
  std::shared_ptr<FakeSocketFactory> factory = std::make_shared<FakeSocketFactory>(reactor);
  std::shared_ptr<FakeResolver> resolver = std::make_shared<FakeResolver>(reactor);
  std::shared_ptr<NetHttpClient> client =
      std::make_shared<NetHttpClient>(reactor, pool, factory, nullptr, resolver, 2);
};

TEST_F(RequestReuseTest, AUseAfterAFailedOneCarriesNothingOver) {
  Seen first;
  auto failed = start("POST", "/first", first);
  failed->headers().addField("X-Only-First", "1");
  failed->setCloseConnection();
  failed->send("abc", 3);
  run();
  // A chunked body whose chunk is not ended as it must be.
  factory->last().deliver("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhe");
  run();
  factory->last().deliver("XX");
  run();
  ASSERT_TRUE(first.code);
  EXPECT_TRUE(*first.code);
  WebClientRequest* const object = failed.get();
  failed.reset();
  run();

  Seen second;
  auto next = start("GET", "/second", second);
  EXPECT_EQ(object, next.get());  // the same object, used again
  EXPECT_FALSE(next->isStarted());
  EXPECT_EQ("GET /second HTTP/1.1\r\nHost: example\r\n\r\n",
            std::string(next->headers().data(), next->headers().size()));
  next->send(nullptr, 0);
  run();
  EXPECT_EQ("GET /second HTTP/1.1\r\nHost: example\r\n\r\n", factory->last().sent);
  factory->last().deliver("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
  run();
  EXPECT_EQ(1, second.responses);
  EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", second.head);
  EXPECT_EQ("hello", second.body);
  EXPECT_EQ(1, second.ends);
  EXPECT_EQ(1, second.codes);
  EXPECT_FALSE(*second.code);
  // Nothing more reached the first use's handlers, and the connection of the
  // second was kept: no close was asked for this time.
  EXPECT_EQ(1, first.codes);
  EXPECT_EQ(1u, client->plainPool()->freeCount());
}

// A caller may keep a response after letting its request go: the object is
// not used again while it does, and the response stays as it came.
TEST_F(RequestReuseTest, AResponseStillHeldKeepsItsObjectOffTheShelf) {
  Seen first;
  auto request = start("GET", "/a", first);
  std::shared_ptr<WebClientResponse> kept;
  request->setResponseHandler([&kept](const std::shared_ptr<WebClientResponse>& response) { kept = response; });
  request->send(nullptr, 0);
  run();
  factory->last().deliver("HTTP/1.1 200 OK\r\nServer: first\r\nContent-Length: 1\r\n\r\na");
  run();
  ASSERT_TRUE(kept);
  WebClientRequest* const object = request.get();
  request.reset();
  run();

  Seen second;
  auto other = start("GET", "/b", second);
  EXPECT_NE(object, other.get());
  other->send(nullptr, 0);
  run();
  factory->last().deliver("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  run();
  EXPECT_EQ(0u, second.head.rfind("HTTP/1.1 404 Not Found\r\n", 0));
  EXPECT_EQ("first", kept->headers().find("Server")->value.str());
  other.reset();

  kept.reset();
  Seen third;
  auto again = start("GET", "/c", third);
  EXPECT_EQ(object, again.get());
}

// Handles an old use gave out reach nothing of the next: its body sink has
// expired and a source connected to it puts into nothing.
TEST_F(RequestReuseTest, AnOldUsesBodySinkIsGone) {
  Seen first;
  auto request = start("POST", "/a", first);
  const std::weak_ptr<BodySink> oldSink = request->bodySink();
  BodySource source;
  source.connect(oldSink);
  request.reset();
  run();
  EXPECT_TRUE(oldSink.expired());

  Seen second;
  auto next = start("POST", "/b", second);
  next->startStreaming();
  run();
  source.put(BufferChainPtr(testing::chainOf(*pool, "stale")));
  source.end();
  auto sink = next->bodySink().lock();
  ASSERT_TRUE(sink);
  EXPECT_FALSE(sink->hasItem());
  EXPECT_FALSE(sink->endArrived());
  sink->put(BufferChainPtr(testing::chainOf(*pool, "new")));
  sink->end();
  run();
  EXPECT_EQ("POST /b HTTP/1.1\r\nHost: example\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nnew\r\n0\r\n\r\n",
            factory->last().sent);
}

}  // namespace
}  // namespace quorvel
