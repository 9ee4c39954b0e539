#include <boost/system/error_code.hpp>

#include "tests/unit/revhttp/revhttp_fixture.h"

namespace quorvel {
namespace testing {
namespace {

const boost::system::error_code Reset = boost::system::errc::make_error_code(boost::system::errc::connection_reset);
const std::string NextLink = "Link: </rhttp/relay/k1/2>; rel=\"next\"\r\n";
const std::string Name = "https://k1.relay.test/rhttp/relay/k1/1";

using RelayLoop = RevHttpTest;

// ---- the loop itself

TEST_F(RelayLoop, NoContentStartsTheNextGetAndKeepsNothing) {
  std::shared_ptr<FakeClientRequest> get = registered();
  respond(*get, "HTTP/1.1 204 No Content\r\n" + NextLink);
  ASSERT_EQ(sent(), 3u);
  EXPECT_EQ(url(*last()), "https://k1.relay.test/rhttp/relay/k1/2");
  EXPECT_EQ(client->activeCount(), 0u);
  get->complete();
  reactor->runDue();
  EXPECT_EQ(reactor->pending(), 0u);
}

TEST_F(RelayLoop, EveryBadRelayResponseLeadsToANewRegistration) {
  struct Case {
    std::string head;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"HTTP/1.1 204 No Content\r\n", "Relay response has no Link field"},
      {"HTTP/1.1 200 OK\r\nContent-Type: message/http\r\nlink: </r/2>; rel=next\r\n",
       "Relay response has no Link field"},
      {"HTTP/1.1 200 OK\r\n" + NextLink, "Relay response has no or unsupported content type"},
      {"HTTP/1.1 200 OK\r\nContent-Type: message/http; charset=utf-8\r\n" + NextLink,
       "Relay response has no or unsupported content type"},
      {"HTTP/1.1 200 OK\r\nContent-Type: Message/HTTP\r\n" + NextLink,
       "Relay response has no or unsupported content type"},
      {"HTTP/1.1 400 Bad Request\r\n" + NextLink, "Bad relay response 400 Bad Request from " + Name},
      {"HTTP/1.1 502 Bad Gateway\r\nContent-Type: message/http\r\n" + NextLink,
       "Bad relay response 502 Bad Gateway from " + Name},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.head);
    logs->clear();
    restart(pool);
    respond(*registered(), c.head);
    EXPECT_TRUE(logged(c.message, log::Notice));
    EXPECT_EQ(sent(), 2u);
    reactor->advance(Duration::seconds(1));
    ASSERT_EQ(sent(), 3u);
    EXPECT_EQ(last()->path, "/rhttp/register");
  }
  // A lower-case field name for the type is fine; only the value is exact.
  respond(*registered(), "HTTP/1.1 200 OK\r\ncontent-type: message/http\r\n" + NextLink);
  EXPECT_EQ(client->activeCount(), 1u);
}

TEST_F(RelayLoop, ARelayGetFailureReRegistersButABrokenRelayedBodyDoesNot) {
  registered()->complete(Reset);
  EXPECT_TRUE(logged("Relay request to " + Name + " failed with code 104", log::Notice));
  reactor->advance(Duration::seconds(1));
  EXPECT_EQ(last()->path, "/rhttp/register");

  respond(*last(), "HTTP/1.1 201 Created\r\nLink: </rhttp/relay/k1/1>; rel=\"first\"\r\n");
  std::shared_ptr<FakeClientRequest> get = relay({"POST /x HTTP/1.1\r\nContent-Length: 9\r\n\r\nab"});
  const std::size_t before = sent();
  get->complete(Reset);
  EXPECT_EQ(client->activeCount(), 0u);
  EXPECT_EQ(client->finishedCount(), 1u);
  reactor->advance(Duration::seconds(60));
  EXPECT_EQ(sent(), before);
}

TEST_F(RelayLoop, OneGetIsOutstandingWhileBodiesStillArrive) {
  std::shared_ptr<FakeClientRequest> first = registered();
  relay({"POST /a HTTP/1.1\r\nContent-Length: 6\r\n\r\n"});
  std::shared_ptr<FakeClientRequest> second = last();
  EXPECT_EQ(second->method, "GET");
  relay({"GET /b HTTP/1.1\r\n\r\n"}, std::string(ReplyLink) + "Link: </rhttp/relay/k1/3>; rel=\"next\"\r\n");
  EXPECT_EQ(sent(), 4u);
  first->response->put("abc");
  first->response->put("def");
  first->response->end();
  ASSERT_EQ(handler->requests.size(), 2u);
  // A head that ends with its piece leaves no empty first piece of body.
  EXPECT_EQ(handler->bodyPieces, (std::vector<std::string>{"abc", "def"}));
  EXPECT_TRUE(handler->requests[0]->isBodyComplete());
  EXPECT_EQ(client->activeCount(), 2u);
}

// A handler may set its body handler later: pieces that came before wait for
// it, in order, and later ones go straight to it.
TEST_F(RelayLoop, BodyPiecesWaitForALateBodyHandler) {
  struct Keeper : WebRequestHandler {
    bool handle(const std::shared_ptr<WebRequest>& request) override {
      kept = request;
      return true;
    }
    std::shared_ptr<WebRequest> kept;
  };
  auto keeper = std::make_shared<Keeper>();
  client->setRequestHandler(keeper);
  std::shared_ptr<FakeClientRequest> get = registered();
  relay({"POST /a HTTP/1.1\r\nContent-Length: 6\r\n\r\nab", "cd"});
  ASSERT_TRUE(keeper->kept);
  std::string body;
  keeper->kept->setBodyDataHandler([&body](const BufferChainPtr& piece, bool end) {
    body += end ? std::string("|") : pieceText(piece);
  });
  EXPECT_EQ(body, "abcd");
  get->response->put("ef");
  get->response->end();
  EXPECT_EQ(body, "abcdef|");
}

// ---- relayed heads

TEST_F(RelayLoop, HeadSplitOverPiecesIsCollected) {
  registered();
  relay({"GET /a?b=c HT", "TP/1.1\r\nHost: x\r\nX-A: 1\r\n\r", "\nignored"});
  ASSERT_EQ(handler->requests.size(), 1u);
  const MessageHeaders& head = handler->requests[0]->headers();
  EXPECT_EQ(head.method(), StringSection("GET"));
  EXPECT_EQ(head.requestTarget(), StringSection("/a?b=c"));
  EXPECT_EQ(head.version(), StringSection("HTTP/1.1"));
  EXPECT_EQ(std::string(head.data(), head.size()), "GET /a?b=c HTTP/1.1\r\nHost: x\r\nX-A: 1\r\n\r\n");
  EXPECT_TRUE(logged(Name + ": Forwarding request: GET /a?b=c HTTP/1.1", log::Info));
  // No body: complete at once, and the bytes after the head are not its body.
  EXPECT_TRUE(handler->requests[0]->isBodyComplete());
  EXPECT_EQ(handler->ends, 1);
  EXPECT_EQ(handler->body, "");
}

TEST_F(RelayLoop, HeadAndFirstBodyBytesInOnePieceAndChunkedBodiesArriveDecoded) {
  registered();
  relay({"POST /f HTTP/1.1\r\nContent-Length: 11\r\n\r\nhello"});
  std::shared_ptr<FakeClientRequest> get = http->requests[1];
  get->response->put(" world");
  get->response->end();
  EXPECT_EQ(handler->bodyPieces, (std::vector<std::string>{"hello", " world"}));
  EXPECT_EQ(handler->ends, 1);

  handler->body.clear();
  std::shared_ptr<FakeClientRequest> next = currentGet();
  relay({"POST /c HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n5\r\nhel", "lo\r\n3\r\n", "abc\r\n0\r", "\n\r\n", "after"});
  // Nothing after the last chunk reaches the handler, not even a second end.
  EXPECT_EQ(handler->body, "helloabc");
  // The body is complete at its last chunk, before the relay body ends.
  EXPECT_TRUE(handler->requests[1]->isBodyComplete());
  EXPECT_EQ(handler->ends, 2);
  next->response->end();
  EXPECT_EQ(handler->ends, 2);

  relay({"POST /bad HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"});
  EXPECT_TRUE(logged("https://k1.relay.test/rhttp/relay/k1/2: Relayed request has a malformed chunked body",
                     log::Notice));
  EXPECT_FALSE(handler->requests[2]->isActive());
}

TEST_F(RelayLoop, HeadOverTheBufferAndMalformedHeadsAreDroppedUnanswered) {
  registered();
  const std::string longField = "X-Long: " + std::string(5000, 'a') + "\r\n\r\n";
  std::shared_ptr<FakeClientRequest> get = relay({"GET / HTTP/1.1\r\n", longField.substr(0, 3000)});
  EXPECT_EQ(client->activeCount(), 1u);
  get->response->put(longField.substr(3000));
  EXPECT_TRUE(logged(Name + ": No header separator found in 4096 bytes", log::Notice));
  EXPECT_EQ(client->activeCount(), 0u);
  // The rest of that body is read and dropped, never held back.
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(get->response->put("more"));
  get->response->end();

  for (const std::string& bad : {std::string("GARBAGE\r\n\r\n"), std::string("GET /\r\n\r\n"),
                                 std::string("GET / HTTP/1.1\r\nNoColon\r\n\r\n")}) {
    SCOPED_TRACE(bad);
    logs->clear();
    relay({bad});
    EXPECT_TRUE(logged("https://k1.relay.test/rhttp/relay/k1/2: Relay reply contains malformed HTTP request",
                       log::Notice));
  }
  EXPECT_TRUE(handler->requests.empty());
  EXPECT_EQ(replyPost(), nullptr);
  // Each relay response recycles the one before; the last waits for the next.
  EXPECT_EQ(client->activeCount(), 0u);
  EXPECT_EQ(client->finishedCount(), 1u);
  EXPECT_EQ(client->freeCount(), 0u);
}

TEST_F(RelayLoop, ASeparatorAtTheVeryEndOfTheBufferStillCounts) {
  registered();
  const std::string start = "GET / HTTP/1.1\r\nX: ";
  const std::string head = start + std::string(4096 - start.size() - 4, 'b') + "\r\n\r\n";
  relay({head.substr(0, 4094), head.substr(4094) + "tail"});
  ASSERT_EQ(handler->requests.size(), 1u);
  EXPECT_EQ(handler->requests[0]->headers().size(), 4096u);
}

TEST_F(RelayLoop, ABodyThatEndsInsideTheHeadEndsThePendingRequest) {
  std::shared_ptr<FakeClientRequest> get = registered();
  relay({"GET / HT"});
  get->response->end();
  EXPECT_EQ(client->activeCount(), 0u);
  EXPECT_EQ(replyPost(), nullptr);
}

// ---- answers

TEST_F(RelayLoop, UnhandledRequestGetsTheSimpleNotFoundReplyWithItsSchemeKept) {
  handler->takes = false;
  registered();
  // Its body goes nowhere, so later pieces cannot end it early either.
  relay({"POST /nobody HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n", "not a chunk\r\n"},
        "Link: <https://k1.relay.test/rhttp/reply/7>; rel=\"reply\"\r\n" + NextLink);
  EXPECT_TRUE(logged(Name + ": Request for /nobody not handled", log::Notice));
  std::shared_ptr<FakeClientRequest> post = replyPost();
  ASSERT_NE(post, nullptr);
  EXPECT_EQ(url(*post), "https://k1.relay.test/rhttp/reply/7");
  EXPECT_TRUE(hasField(*post, "Content-Type", "message/http"));
  EXPECT_EQ(post->sentBody, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(post->streamStarts, 0);
  EXPECT_EQ(handler->body, "");

  EXPECT_EQ(client->finishedCount(), 0u);
  respond(*post, "HTTP/1.1 200 OK\r\n");
  EXPECT_EQ(client->finishedCount(), 1u);
  respond(*currentGet(), "HTTP/1.1 204 No Content\r\n" + NextLink);
  EXPECT_EQ(client->finishedCount(), 0u);
  EXPECT_EQ(client->freeCount(), 1u);
}

TEST_F(RelayLoop, AReplyTheClientRefusesEndsThePendingRequest) {
  handler->takes = false;
  registered();
  std::shared_ptr<FakeClientRequest> get = currentGet();
  respond(*get, "HTTP/1.1 200 OK\r\nContent-Type: message/http\r\n" + NextLink);
  http->refusal = "HTTPS connections not supported";
  get->response->put("GET /x HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(logged(Name + ": Reply request to " + Name + " failed: HTTPS connections not supported", log::Notice));
  EXPECT_EQ(client->activeCount(), 0u);
}

TEST_F(RelayLoop, SentTargetResponseIsPostedOverPlainHttpInOneBuffer) {
  handler->onRequest = [](const std::shared_ptr<WebRequest>& request) {
    std::shared_ptr<WebResponse> response = request->createResponse(HttpStatus::Ok);
    response->headers().addField("Content-Type", "text/plain");
    response->send("hi there", 8);
  };
  registered();
  // No reply link: the answer goes to the relay URL itself.
  relay({"GET /page HTTP/1.1\r\n\r\n"}, NextLink);
  std::shared_ptr<FakeClientRequest> post = replyPost();
  ASSERT_NE(post, nullptr);
  EXPECT_EQ(url(*post), "http://k1.relay.test/rhttp/relay/k1/1");
  EXPECT_TRUE(hasField(*post, "Content-Type", "message/http"));
  EXPECT_EQ(post->streamStarts, 1);
  EXPECT_EQ(post->body.text(), "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nhi there");
  EXPECT_EQ(post->body.pieces(), 1u);
  EXPECT_TRUE(post->body.ended());
  EXPECT_TRUE(logged(Name + ": Got target response: HTTP/1.1 200 OK", log::Info));

  post->complete(Reset);
  EXPECT_TRUE(logged(Name + ": Reply response error 104", log::Notice));
  EXPECT_EQ(client->activeCount(), 0u);
}

TEST_F(RelayLoop, StartedTargetResponseStreamsWithBackPressure) {
  std::shared_ptr<WebResponse> response;
  handler->onRequest = [&response](const std::shared_ptr<WebRequest>& request) {
    response = request->createResponse(HttpStatus::Ok);
    response->start();
  };
  registered();
  relay({"GET /big HTTP/1.1\r\n\r\n"});
  std::shared_ptr<FakeClientRequest> post = replyPost();
  ASSERT_NE(post, nullptr);
  EXPECT_EQ(url(*post), "http://k1.relay.test:8080/rhttp/reply/7");
  EXPECT_EQ(post->body.text(), "HTTP/1.1 200 OK\r\n\r\n");
  EXPECT_EQ(post->body.pieces(), 1u);

  // The upload takes one piece at a time only when the test lets it.
  post->body.hold();
  BodySource producer;
  producer.connect(response->bodySink());
  int accepted = 0;
  for (int i = 0; i < 10 && producer.put(bodyPiece("piece" + std::to_string(i))); ++i) ++accepted;
  EXPECT_LT(accepted, 10);
  EXPECT_TRUE(producer.isBlocked());
  bool unblocked = false;
  producer.setUnblockedHandler([&unblocked]() { unblocked = true; });
  post->body.takeOne();
  EXPECT_TRUE(unblocked);
  post->body.release();
  for (int i = accepted + 1; i < 10; ++i) EXPECT_TRUE(producer.put(bodyPiece("piece" + std::to_string(i))));
  producer.end();
  std::string body;
  for (int i = 0; i < 10; ++i) body += "piece" + std::to_string(i);
  EXPECT_EQ(post->body.text(), "HTTP/1.1 200 OK\r\n\r\n" + body);
  EXPECT_TRUE(post->body.ended());

  respond(*post, "HTTP/1.1 200 OK\r\n");
  EXPECT_EQ(client->activeCount(), 0u);
  EXPECT_FALSE(post->cancels > 0);
}

TEST_F(RelayLoop, NoBufferForTheAnswerEndsThePendingRequest) {
  handler->onRequest = [this](const std::shared_ptr<WebRequest>& request) {
    allocator->dry = true;
    request->createResponse(HttpStatus::Ok)->send("x", 1);
  };
  registered();
  relay({"GET / HTTP/1.1\r\n\r\n"});
  EXPECT_TRUE(logged("Failed to allocate memory for target response headers", log::Warning));
  EXPECT_EQ(replyPost(), nullptr);
  EXPECT_EQ(client->activeCount(), 0u);
}

TEST_F(RelayLoop, AnEarlyReplyResponseCancelsTheUploadAndStaleHandlesDoNothing) {
  std::shared_ptr<WebResponse> response;
  handler->onRequest = [&response](const std::shared_ptr<WebRequest>& request) {
    response = request->createResponse(HttpStatus::Ok);
    response->start();
  };
  registered();
  relay({"GET /a HTTP/1.1\r\n\r\n"});
  std::shared_ptr<WebRequest> first = handler->requests[0];
  std::shared_ptr<WebResponse> firstResponse = response;
  std::shared_ptr<FakeClientRequest> post = replyPost();
  respond(*post, "HTTP/1.1 404 Not Found\r\n");
  EXPECT_TRUE(post->cancels > 0);
  EXPECT_FALSE(first->isActive());

  // The recycled object serves the next request; the old handles stay dead.
  relay({"GET /b HTTP/1.1\r\n\r\n"}, NextLink);
  EXPECT_EQ(client->freeCount(), 0u);
  ASSERT_EQ(handler->requests.size(), 2u);
  EXPECT_TRUE(handler->requests[1]->isActive());
  EXPECT_FALSE(first->isActive());
  const std::size_t before = sent();
  BodySource late;
  late.connect(firstResponse->bodySink());
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(late.put(bodyPiece("late")));
  late.end();
  first->createResponse(HttpStatus::Ok)->send("y", 1);
  EXPECT_EQ(sent(), before + 0);
  reactor->runDue();
}

// An exchange whose upload failed half way is used again for the next
// relayed request: that one's reply carries its own answer only, and the
// first answer's body, still coming, reaches neither reply.
TEST_F(RelayLoop, AnUploadUsedAgainCarriesNothingOver) {
  std::vector<std::shared_ptr<WebResponse>> responses;
  handler->onRequest = [&responses](const std::shared_ptr<WebRequest>& request) {
    responses.push_back(request->createResponse(HttpStatus::Ok));
    if (responses.size() == 1) {
      responses.back()->start();
    } else {
      responses.back()->send("two", 3);
    }
  };
  registered();
  relay({"GET /one HTTP/1.1\r\n\r\n"});
  std::shared_ptr<FakeClientRequest> first = replyPost();
  ASSERT_NE(first, nullptr);
  BodySource producer;
  producer.connect(responses[0]->bodySink());
  producer.put(bodyPiece("one"));
  first->complete(Reset);
  EXPECT_EQ(client->activeCount(), 0u);
  const std::string firstBody = first->body.text();

  relay({"GET /two HTTP/1.1\r\n\r\n"}, NextLink);
  EXPECT_EQ(client->freeCount(), 0u);  // the first exchange's object, used again
  std::shared_ptr<FakeClientRequest> second = replyPost();
  ASSERT_NE(second, first);
  EXPECT_EQ(url(*second), "http://k1.relay.test/rhttp/relay/k1/2");
  EXPECT_EQ(second->body.text(), "HTTP/1.1 200 OK\r\n\r\ntwo");
  EXPECT_TRUE(second->body.ended());
  producer.put(bodyPiece("late"));
  producer.end();
  EXPECT_EQ(second->body.text(), "HTTP/1.1 200 OK\r\n\r\ntwo");
  EXPECT_EQ(first->body.text(), firstBody);
  respond(*second, "HTTP/1.1 200 OK\r\n");
  EXPECT_EQ(client->activeCount(), 0u);
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
