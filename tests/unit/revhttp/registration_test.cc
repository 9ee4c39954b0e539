#include <boost/system/error_code.hpp>

#include "tests/unit/revhttp/revhttp_fixture.h"
#include "tests/support/wall_clock_steps.h"

namespace quorvel {
namespace testing {
namespace {

const boost::system::error_code Refused = boost::system::errc::make_error_code(boost::system::errc::connection_refused);

using Registration = RevHttpTest;

TEST_F(Registration, NothingIsSentBeforeStartThenOnePostWithTheKey) {
  EXPECT_EQ(sent(), 0u);
  client->start();
  ASSERT_EQ(sent(), 1u);
  const FakeClientRequest& post = *last();
  EXPECT_EQ(post.method, "POST");
  EXPECT_EQ(post.scheme, "https");
  EXPECT_EQ(post.hostValue, "k1.relay.test");
  EXPECT_EQ(post.connectHost, "k1.relay.test");
  EXPECT_EQ(post.path, "/rhttp/register");
  EXPECT_TRUE(hasField(post, "Content-Type", "application/x-www-form-urlencoded"));
  EXPECT_EQ(post.sentBody, "drk=k1");
  EXPECT_TRUE(logged("Registering at https://k1.relay.test/rhttp/register with key k1", log::Info));
}

TEST_F(Registration, KeyIsSentUnencodedAndAnEmptyPathBecomesRoot) {
  client = std::make_shared<ReverseHttpClient>(reactor, pool, http, "https://a.relay.test", "a&b=c d");
  client->start();
  EXPECT_EQ(last()->sentBody, "drk=a&b=c d");
  EXPECT_EQ(last()->path, "/");
}

TEST_F(Registration, CreatedWithFirstLinkStartsTheRelayLoop) {
  client->start();
  respond(*last(), "HTTP/1.1 201 Created\r\nLink: <relay/abc>; rel=\"first\"\r\n");
  ASSERT_EQ(sent(), 2u);
  const FakeClientRequest& get = *last();
  EXPECT_EQ(get.method, "GET");
  EXPECT_EQ(url(get), "https://k1.relay.test/rhttp/relay/abc");
  EXPECT_EQ(get.hostValue, "k1.relay.test");
  EXPECT_TRUE(hasField(get, "Accept", "message/http"));
  EXPECT_EQ(get.sends, 1);
  EXPECT_EQ(get.sentBody, "");
  EXPECT_TRUE(logged("Registration succeeded", log::Info));
  EXPECT_EQ(reactor->nextDue(), reactor->clock().now());  // only the deferred release of the POST
  reactor->runDue();
  EXPECT_EQ(reactor->pending(), 0u);
}

// Every failure waits twice as long as the one before.
TEST_F(Registration, FailuresAreLoggedAndRetried) {
  client->start();
  // The field name is matched with its case.
  respond(*last(), "HTTP/1.1 201 Created\r\nlink: </r/1>; rel=\"first\"\r\n");
  EXPECT_TRUE(logged("Register response has no Link field", log::Notice));
  reactor->advance(Duration::seconds(1));
  respond(*last(), "HTTP/1.1 200 OK\r\n");
  EXPECT_TRUE(logged("Register response has status 200 OK", log::Notice));
  reactor->advance(Duration::seconds(2));
  last()->complete(Refused);
  EXPECT_TRUE(logged("Registration request failed with code 111", log::Notice));
  reactor->advance(Duration::seconds(4));
  ASSERT_EQ(sent(), 4u);
  EXPECT_EQ(last()->path, "/rhttp/register");
  // A client that cannot do https at all does not stop the retries.
  http->refusal = "HTTPS connections not supported";
  respond(*last(), "HTTP/1.1 404 Not Found\r\n");
  reactor->advance(Duration::seconds(8));
  EXPECT_TRUE(logged("POST request to https://k1.relay.test/rhttp/register failed: HTTPS connections not supported", log::Notice));
  EXPECT_EQ(reactor->nextDue(), reactor->clock().now() + Duration::seconds(16));
}

TEST_F(Registration, BackOffDoublesToThirtySecondsAndOnlySuccessResetsIt) {
  client->start();
  std::vector<int64_t> waits;
  for (int attempt = 0; attempt < 8; ++attempt) {
    last()->complete(Refused);
    const SteadyTime failed = reactor->clock().now();
    const std::size_t before = sent();
    waits.push_back((reactor->nextDue() - failed).count() / 1000000);
    reactor->advance(reactor->nextDue() - failed);
    ASSERT_EQ(sent(), before + 1);
  }
  EXPECT_EQ(waits, (std::vector<int64_t>{1, 2, 4, 8, 16, 30, 30, 30}));

  // A relay failure after a success waits the shortest time again.
  respond(*last(), "HTTP/1.1 201 Created\r\nLink: </r/1>; rel=first\r\n");
  reactor->runDue();
  EXPECT_EQ(client->retryDelay(), ReverseHttpClient::FirstRetryDelay);
  last()->complete(Refused);
  EXPECT_TRUE(logged("Relay request to https://k1.relay.test/r/1 failed with code 111", log::Notice));
  EXPECT_EQ(reactor->nextDue() - reactor->clock().now(), Duration::seconds(1));
  EXPECT_EQ(client->retryDelay(), Duration::seconds(2));
}

// The back-off waits on the monotonic clock: a device that boots with no date
// and has it set while it waits registers on schedule.
TEST(RegistrationClock, AWallClockStepMovesNoRetry) {
  struct Run : Registration {
    void TestBody() override {}
    std::vector<int64_t> trace(Duration step) {
      client->start();
      std::vector<int64_t> seen;
      const SteadyTime begin = reactor->clock().now();
      for (int attempt = 0; attempt < 5; ++attempt) {
        last()->complete(Refused);
        reactor->advance(Duration::milliseconds(500));
        reactor->stepWallClock(step);
        reactor->advance(Duration::seconds(40));
        seen.push_back(static_cast<int64_t>(sent()));
      }
      seen.push_back((reactor->nextDue() - begin).count());
      return seen;
    }
  };
  testing::expectNoWallClockStepMatters([](Duration step) { return Run().trace(step); });
}

TEST_F(Registration, LateCallbacksOfAHandledRegistrationChangeNothing) {
  std::shared_ptr<FakeClientRequest> post = (client->start(), last());
  respond(*post, "HTTP/1.1 201 Created\r\nLink: </r/1>; rel=first\r\n");
  post->complete(Refused);
  post->complete();
  respond(*post, "HTTP/1.1 201 Created\r\nLink: </r/2>; rel=first\r\n");
  EXPECT_EQ(sent(), 2u);
  EXPECT_FALSE(logged("Registration request failed with code 111", log::Notice));
  reactor->runDue();
  EXPECT_EQ(reactor->pending(), 0u);
}

TEST_F(Registration, DestructionCancelsAndSilencesEverything) {
  std::shared_ptr<FakeClientRequest> get = registered();
  relay({"POST /p HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345"});
  std::shared_ptr<FakeClientRequest> next = last();
  ASSERT_EQ(handler->requests.size(), 1u);
  std::shared_ptr<WebRequest> request = handler->requests[0];
  EXPECT_TRUE(request->isActive());

  client.reset();
  EXPECT_TRUE(get->cancels > 0);
  EXPECT_TRUE(next->cancels > 0);
  EXPECT_FALSE(request->isActive());
  const std::size_t before = sent();
  get->response->put("67890");
  request->createResponse(HttpStatus::Ok)->send("x", 1);
  respond(*next, "HTTP/1.1 204 No Content\r\nLink: </r/3>; rel=next\r\n");
  reactor->advance(Duration::seconds(60));
  EXPECT_EQ(sent(), before);
  EXPECT_EQ(handler->body, "12345");
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
