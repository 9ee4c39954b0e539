#include <memory>
#include <string>
#include <vector>

#include <boost/asio/error.hpp>
#include <gtest/gtest.h>

#include "http/http_forwarder.h"
#include "tests/support/http_fakes.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"

namespace quorvel {
namespace {

using testing::FakeClientRequest;
using testing::FakeClientResponse;
using testing::FakeHttpClient;
using testing::FakeWebRequest;
using testing::fieldValues;

class ForwarderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log::setLevel("httpfwd", log::Debug);
    logs = testing::LogCapture::install();
    forwarder = std::make_unique<HttpForwarder>(reactor, client, "localhost:8080");
  }
  void TearDown() override { log::setLevel("httpfwd", log::Notice); }

  std::shared_ptr<FakeWebRequest> forward(const std::string& head, const std::string& address = "") {
    std::shared_ptr<FakeWebRequest> request = FakeWebRequest::make(head);
    request->info.address = address;
    EXPECT_TRUE(forwarder->handle(request));
    return request;
  }
  FakeClientRequest& target() { return client->last(); }

  std::shared_ptr<testing::ManualReactor> reactor = std::make_shared<testing::ManualReactor>();
  std::shared_ptr<FakeHttpClient> client = std::make_shared<FakeHttpClient>();
  std::shared_ptr<testing::LogCapture> logs;
  std::unique_ptr<HttpForwarder> forwarder;
};

// ---- what goes to the target

TEST_F(ForwarderTest, HostFieldIsKeptAsTheHostValue) {
  forward("GET /a?b=1 HTTP/1.1\r\nHost: cam.example:81\r\nAccept: */*\r\n");
  EXPECT_EQ(target().method, "GET");
  EXPECT_EQ(target().scheme, "http");
  EXPECT_EQ(target().hostValue, "cam.example:81");
  EXPECT_EQ(target().connectHost, "localhost:8080");
  EXPECT_EQ(target().path, "/a?b=1");
  // The client writes Host from the host value; a copy would double it.
  EXPECT_TRUE(fieldValues(target().headers_, "Host").empty());
  // A complete request goes with send(), and the response body is taken
  // from the response's source, never through a handler that would bypass
  // flow control.
  EXPECT_EQ(target().sends, 1);
  EXPECT_EQ(target().streamStarts, 0);
  EXPECT_TRUE(target().sentBody.empty());
  EXPECT_FALSE(target().bodyDataHandler);
  // Without a Host field the target host is the host value.
  forward("GET / HTTP/1.0\r\n");
  EXPECT_EQ(target().hostValue, "localhost:8080");
}

// Copied in order and unchanged; the merged X-Forwarded-For goes after them,
// not in the old one's place.
TEST_F(ForwarderTest, OtherFieldsAreCopiedInOrderAndUnchanged) {
  forward("POST /x HTTP/1.1\r\nhOsT: h\r\nCookie: a=1; b=2\r\nX-Forwarded-For: 198.51.100.4\r\nContent-Length: 3\r\n"
          "X-Custom:  spaced value \r\nAuthorization: Basic Zm9v\r\n",
          "192.0.2.7");
  EXPECT_EQ(testing::wireText(target().headers_),
            "POST /x HTTP/1.1\r\nCookie: a=1; b=2\r\nContent-Length: 3\r\nX-Custom: spaced value\r\n"
            "Authorization: Basic Zm9v\r\nX-Forwarded-For: 198.51.100.4, 192.0.2.7\r\n\r\n");
}

TEST_F(ForwarderTest, ForwardedForCases) {
  struct {
    const char* fields;
    const char* address;
    std::vector<std::string> expected;
  } const cases[] = {
      {"x-forwarded-for: 198.51.100.4\r\nX-Forwarded-For: 203.0.113.9, 10.1.1.1\r\n", "::1",
       {"198.51.100.4, 203.0.113.9, 10.1.1.1, ::1"}},
      {"", "192.0.2.7", {"192.0.2.7"}},
      // Without the address the earlier hops go too.
      {"X-Forwarded-For: 198.51.100.4\r\n", "", {}},
      {"", "", {}},
  };
  for (const auto& c : cases) {
    forward(std::string("GET / HTTP/1.1\r\n") + c.fields, c.address);
    EXPECT_EQ(fieldValues(target().headers_, "X-Forwarded-For"), c.expected) << c.fields << c.address;
  }
}

TEST_F(ForwarderTest, ForwardedProtoIsKeptOrAddedOnlyWhenSet) {
  forward("GET / HTTP/1.1\r\n");
  EXPECT_TRUE(fieldValues(target().headers_, "X-Forwarded-Proto").empty());
  forwarder->setForwardedProtocol("https");
  forward("GET / HTTP/1.1\r\n");
  EXPECT_EQ(fieldValues(target().headers_, "X-Forwarded-Proto"), std::vector<std::string>{"https"});
  forward("GET / HTTP/1.1\r\nX-Forwarded-Proto: http\r\n");
  EXPECT_EQ(fieldValues(target().headers_, "X-Forwarded-Proto"), std::vector<std::string>{"http"});
}

// ---- the request body

// The client frames the target's body itself: a length passes through, a
// chunked body is not framed twice, and a body without framing still streams.
// Pieces that came before the handler took the request go first.
TEST_F(ForwarderTest, RequestBodyStreamsToTheTarget) {
  struct {
    const char* head;
    std::vector<std::string> lengths, encodings;
  } const cases[] = {
      {"POST /up HTTP/1.1\r\nContent-Length: 10\r\n", {"10"}, {}},
      {"POST /up HTTP/1.1\r\nTransfer-Encoding: chunked\r\n", {}, {"chunked"}},
      {"PUT /p HTTP/1.1\r\n", {}, {"chunked"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.head);
    std::shared_ptr<FakeWebRequest> request = FakeWebRequest::make(c.head);
    request->bodyComplete = false;
    request->pushBody("early ");
    ASSERT_TRUE(forwarder->handle(request));
    EXPECT_EQ(target().streamStarts, 1);
    EXPECT_EQ(target().sends, 0);
    EXPECT_EQ(fieldValues(target().headers_, "Content-Length"), c.lengths);
    EXPECT_EQ(fieldValues(target().headers_, "Transfer-Encoding"), c.encodings);
    request->pushBody("late");
    EXPECT_FALSE(target().body.ended());
    request->endBody();
    EXPECT_EQ(target().body.text(), "early late");
    EXPECT_TRUE(target().body.ended());
  }
}

TEST_F(ForwarderTest, RequestBodySinkMissingGivesBadGateway) {
  auto request = FakeWebRequest::make("POST /up HTTP/1.1\r\nContent-Length: 5\r\n");
  // A client whose requests cannot take a body.
  struct NoSinkClient : FakeHttpClient {
    std::shared_ptr<WebClientRequest> createRequest(const std::string& m, const std::string& s, const std::string& h,
                                                    const std::string& c, const std::string& p) override {
      auto created = FakeHttpClient::createRequest(m, s, h, c, p);
      last().body.drop();
      return created;
    }
  };
  auto noSink = std::make_shared<NoSinkClient>();
  HttpForwarder other(reactor, noSink, "t");
  other.handle(request);
  ASSERT_TRUE(request->response);
  EXPECT_EQ(request->response->headers_.statusCode(), 502u);
  EXPECT_EQ(noSink->last().cancels, 1);
}

// ---- target failures

// A target that does not answer, or that the client refuses outright.
TEST_F(ForwarderTest, UnreachableTargetGivesNonCacheableBadGateway) {
  for (bool refused : {false, true}) {
    client->refusal = refused ? "HTTPS connections not supported" : "";
    auto request = forward("GET /a HTTP/1.1\r\n");
    if (!refused) target().complete(boost::asio::error::connection_refused);
    ASSERT_EQ(request->responses, 1);
    EXPECT_EQ(request->response->wire(),
              "HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\nCache-Control: no-cache\r\n"
              "Pragma: no-cache\r\n\r\n");
    EXPECT_EQ(request->response->sent, "Unable to relay request");
    EXPECT_EQ(request->response->sends, 1);
    EXPECT_EQ(client->requests.size(), 1u);  // none made when refused
    EXPECT_EQ(target().cancels, 1);
    reactor->runDue();
    EXPECT_EQ(forwarder->pendingCount(), 0u);
  }
}

TEST_F(ForwarderTest, ErrorAfterTheHeadStopsWithoutEndingTheBody) {
  auto request = forward("GET /big HTTP/1.1\r\n");
  auto response = target().respond(200, "OK", {{"Content-Length", "100"}});
  response->put("part");
  target().complete(boost::asio::error::connection_reset);
  EXPECT_EQ(request->responses, 1);  // no 502 after a 200 has gone out
  EXPECT_EQ(request->response->bodyText(), "part");
  EXPECT_FALSE(request->response->body.ended());
  EXPECT_EQ(target().cancels, 1);
}

// ---- the response

TEST_F(ForwarderTest, NoContentAndHeadResponsesArePassedOnWithoutBody) {
  auto request = forward("DELETE /item HTTP/1.1\r\n");
  target().respond(204, "No Content", {{"Date", "Sat, 21 Nov 2026 10:00:00 GMT"}, {"X-Id", "7"}});
  ASSERT_TRUE(request->response);
  EXPECT_EQ(request->response->wire(),
            "HTTP/1.1 204 No Content\r\nDate: Sat, 21 Nov 2026 10:00:00 GMT\r\nX-Id: 7\r\n\r\n");
  EXPECT_EQ(request->response->sends, 1);
  EXPECT_EQ(request->response->sent, "");
  EXPECT_EQ(request->response->starts, 0);
  EXPECT_EQ(target().cancels, 0);
  // A HEAD response keeps the length of the body it would have had.
  auto head = forward("HEAD /f HTTP/1.1\r\n");
  target().respond(200, "OK", {{"Content-Length", "1000"}});
  EXPECT_EQ(head->response->sends, 1);
  EXPECT_EQ(fieldValues(head->response->headers_, "Content-Length"), std::vector<std::string>{"1000"});
}

TEST_F(ForwarderTest, ResponseBodyStreamsThrough) {
  auto request = forward("GET /f HTTP/1.1\r\n");
  auto response = target().respond(200, "OK", {{"Transfer-Encoding", "chunked"}, {"Set-Cookie", "s=1"}});
  EXPECT_EQ(request->response->starts, 1);
  EXPECT_EQ(request->response->wire(), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nSet-Cookie: s=1\r\n\r\n");
  EXPECT_TRUE(response->put("one,"));
  EXPECT_TRUE(response->put("two"));
  response->end();
  target().complete();
  EXPECT_EQ(request->response->bodyText(), "one,two");
  EXPECT_TRUE(request->response->body.ended());
  EXPECT_EQ(target().cancels, 0);
  // Every line of a whole exchange is a debug line of its own log.
  reactor->runDue();
  ASSERT_GE(logs->lines().size(), 8u);
  for (const auto& line : logs->lines()) {
    EXPECT_EQ(line.log, "httpfwd") << line.message;
    EXPECT_EQ(line.level, log::Debug) << line.message;
  }
}

TEST_F(ForwarderTest, SlowConsumerHoldsTheTargetBack) {
  auto request = forward("GET /f HTTP/1.1\r\n");
  auto response = target().respond(200, "OK");
  testing::SinkReader& consumer = request->response->body;
  consumer.hold();
  EXPECT_FALSE(response->put("a"));  // the client must pause reading now
  EXPECT_TRUE(response->source.isBlocked());
  bool resumed = false;
  response->source.setUnblockedHandler([&resumed] { resumed = true; });
  EXPECT_TRUE(consumer.takeOne());
  EXPECT_TRUE(resumed);
  EXPECT_FALSE(response->source.isBlocked());
  EXPECT_FALSE(response->put("b"));
  consumer.release();
  EXPECT_EQ(consumer.text(), "ab");
}

TEST_F(ForwarderTest, InactiveClientRequestIsCancelled) {
  auto request = forward("GET /gone HTTP/1.1\r\n");
  request->active = false;
  target().respond(200, "OK");
  EXPECT_EQ(request->responses, 0);
  EXPECT_EQ(target().cancels, 1);
}

TEST_F(ForwarderTest, ResponseWithoutSinkIsCancelled) {
  auto request = forward("GET /f HTTP/1.1\r\n");
  struct NoSinkRequest : FakeWebRequest {
    using WebRequest::createResponse;
    std::shared_ptr<WebResponse> createResponse(uint32_t code, StringSection reason) override {
      FakeWebRequest::createResponse(code, reason);
      response->body.drop();
      return response;
    }
  };
  auto noSink = std::make_shared<NoSinkRequest>();
  noSink->headers_ = MessageHeaders::request("GET", "/ns");
  forwarder->handle(noSink);
  target().respond(200, "OK", {{"Content-Length", "4"}});
  EXPECT_EQ(noSink->response->starts, 0);
  EXPECT_EQ(noSink->response->sends, 0);
  EXPECT_EQ(target().cancels, 1);
  EXPECT_EQ(client->requests[0]->cancels, 0);
  (void)request;
}

// ---- pending-request bookkeeping

TEST_F(ForwarderTest, CleanUpIsDeferred) {
  forward("GET /a HTTP/1.1\r\n");
  forward("GET /b HTTP/1.1\r\n");
  client->requests[0]->respond(204, "No Content");
  // Not inside the target's callback: the clean-up waits for the reactor.
  EXPECT_EQ(forwarder->pendingCount(), 2u);
  reactor->runDue();
  EXPECT_EQ(forwarder->pendingCount(), 1u);
  client->requests[1]->complete(boost::asio::error::timed_out);
  reactor->runDue();
  EXPECT_EQ(forwarder->pendingCount(), 0u);
}

// A request ends once, however many ends its target reports, and what its
// target reports after the clean-up reaches nothing.
TEST_F(ForwarderTest, LateEndsAndCallbacksChangeNothing) {
  auto request = forward("GET /a HTTP/1.1\r\n");
  std::shared_ptr<FakeClientRequest> kept = client->requests[0];
  kept->complete(boost::asio::error::connection_refused);
  kept->complete(boost::asio::error::connection_refused);
  EXPECT_EQ(request->responses, 1);
  EXPECT_EQ(kept->cancels, 1);
  EXPECT_EQ(reactor->runDue(), 1);  // one clean-up
  EXPECT_EQ(forwarder->pendingCount(), 0u);
  logs->clear();
  kept->respond(200, "OK");
  kept->complete();
  EXPECT_TRUE(logs->lines().empty());
  EXPECT_EQ(request->responses, 1);
}

// Only those: an exchange that has finished, but is not yet cleaned up, is
// left to end on its own.
TEST_F(ForwarderTest, DestroyedForwarderCancelsRequestsInFlight) {
  auto done = forward("GET /done HTTP/1.1\r\n");
  target().respond(200, "OK")->end();
  target().complete();
  ASSERT_EQ(done->responses, 1);
  auto request = forward("GET / HTTP/1.1\r\n");
  std::shared_ptr<FakeClientRequest> finished = client->requests[0];
  std::shared_ptr<FakeClientRequest> kept = client->requests[1];
  forwarder.reset();
  EXPECT_EQ(finished->cancels, 0);
  EXPECT_EQ(kept->cancels, 1);
  // The target's late answer and end reach nothing.
  kept->respond(200, "OK");
  kept->complete(boost::asio::error::connection_refused);
  EXPECT_EQ(request->responses, 0);
  EXPECT_EQ(reactor->runDue(), 0);
}

}  // namespace
}  // namespace quorvel
