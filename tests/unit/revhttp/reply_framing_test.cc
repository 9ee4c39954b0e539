#include <string>

#include "http/encoding_parser.h"
#include "tests/unit/revhttp/revhttp_fixture.h"

namespace quorvel {
namespace testing {
namespace {

const std::string NextLink = "Link: </rhttp/relay/k1/2>; rel=\"next\"\r\n";
const std::string Name = "https://k1.relay.test/rhttp/relay/k1/1";
const std::string ChunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

// Bodies reach the target response as plain payload; the reply must carry
// them framed as its head says.
class ReplyFraming : public RevHttpTest {
 protected:
  // Relays `requestHead` to a handler that answers with a head holding
  // `field` (if any) and returns the reply POST.
  std::shared_ptr<FakeClientRequest> answer(const std::string& requestHead, const char* field, const char* value,
                                            Delegate<void(WebResponse&)> reply) {
    handler->onRequest = [this, field, value, reply](const std::shared_ptr<WebRequest>& request) {
      response = request->createResponse(HttpStatus::Ok);
      if (field) response->headers().addField(field, value);
      reply(*response);
    };
    registered();
    relay({requestHead});
    return replyPost();
  }

  // Decodes a chunked body; fails the test on bad framing.
  static std::string dechunk(const std::string& framed) {
    ChunkedEncodingParser parser(std::shared_ptr<BufferChainAllocator>(&fakeBufferPool(), [](BufferChainAllocator*) {}));
    BufferChain input = bodyPiece(framed).release();
    parser.feed(input);
    EXPECT_TRUE(parser.isFinished());
    EXPECT_FALSE(parser.isFailed());
    return pieceText(parser.takeData());
  }

  std::shared_ptr<WebResponse> response;
};

TEST_F(ReplyFraming, AStreamedChunkedResponseIsFramedPieceByPiece) {
  std::shared_ptr<FakeClientRequest> post =
      answer("GET /feed HTTP/1.1\r\n\r\n", "Transfer-Encoding", "chunked", [](WebResponse& r) { r.start(); });
  ASSERT_NE(post, nullptr);
  EXPECT_EQ(post->body.text(), ChunkedHead);

  BodySource producer;
  producer.connect(response->bodySink());
  producer.put(bodyPiece("hello"));
  producer.put(bodyPiece(""));  // would end the body if framed
  producer.put(bodyPiece(std::string(300, 'z')));
  producer.end();
  const std::string body = post->body.text().substr(ChunkedHead.size());
  EXPECT_EQ(body, "5\r\nhello\r\n12C\r\n" + std::string(300, 'z') + "\r\n0\r\n\r\n");
  EXPECT_EQ(dechunk(body), "hello" + std::string(300, 'z'));
  EXPECT_TRUE(post->body.ended());
}

TEST_F(ReplyFraming, PayloadIsLinkedIntoTheReplyNotCopied) {
  std::shared_ptr<FakeClientRequest> post =
      answer("GET /feed HTTP/1.1\r\n\r\n", "Transfer-Encoding", "chunked", [](WebResponse& r) { r.start(); });
  ASSERT_NE(post, nullptr);
  post->body.hold();
  BodySource producer;
  producer.connect(response->bodySink());

  // Taken at once while the producer still holds it: it goes on whole, after
  // a size line of its own.
  BufferChainPtr shared = bodyPiece("shared");
  producer.put(shared);
  BodySink& upload = post->body.sink();
  ASSERT_EQ(upload.size(), 2u);
  EXPECT_EQ(pieceText(upload.take()), "6\r\n");
  EXPECT_EQ(upload.take(), shared);

  // Queued while the upload is full, then nobody else holds it: its buffers
  // are linked behind the size line.
  producer.put(bodyPiece("filler"));
  BufferChainPtr alone = bodyPiece("alone");
  Buffer* const payload = alone.chain().first();
  producer.put(alone);
  alone.reset();
  ASSERT_EQ(upload.size(), 2u);
  EXPECT_EQ(pieceText(upload.take()), "\r\n6\r\n");
  EXPECT_EQ(pieceText(upload.take()), "filler");  // room for the queued piece
  ASSERT_EQ(upload.size(), 1u);
  BufferChainPtr framed = upload.take();
  EXPECT_EQ(pieceText(framed), "\r\n5\r\nalone");
  EXPECT_EQ(framed.chain().last(), payload);
  producer.end();
  EXPECT_EQ(pieceText(upload.take()), "\r\n0\r\n\r\n");
}

// Answers sent in one piece: head and framed data go in one buffer.
TEST_F(ReplyFraming, AResponseSentInOnePieceIsFramedAsItsHeadSays) {
  struct Case {
    const char* request;
    const char* field;
    const char* value;
    std::string body;
    std::string expected;
  } cases[] = {{"GET /one", "Transfer-Encoding", "chunked", "one piece", ChunkedHead + "9\r\none piece\r\n0\r\n\r\n"},
               {"GET /none", "Transfer-Encoding", "chunked", "", ChunkedHead + "0\r\n\r\n"},
               {"GET /fixed", "Content-Length", "3", "abc", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc"},
               // A HEAD request's answer keeps the head that describes the body it would have had.
               {"HEAD /feed", "Transfer-Encoding", "chunked", "ignored", ChunkedHead}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    http->requests.clear();
    client = std::make_shared<ReverseHttpClient>(reactor, allocator, http, RegistrationUrl, "k1");
    client->setRequestHandler(handler);
    const std::string body = c.body;
    std::shared_ptr<FakeClientRequest> post =
        answer(std::string(c.request) + " HTTP/1.1\r\n\r\n", c.field, c.value,
               [body](WebResponse& r) { r.send(body.data(), body.size()); });
    ASSERT_NE(post, nullptr);
    EXPECT_EQ(post->body.text(), c.expected);
    EXPECT_EQ(post->body.pieces(), 1u);
    EXPECT_TRUE(post->body.ended());
  }
}

TEST_F(ReplyFraming, AnEmptyStartedChunkedBodyIsTheEndMarkerAlone) {
  std::shared_ptr<FakeClientRequest> streamed = answer("GET /none HTTP/1.1\r\n\r\n", "Transfer-Encoding",
                                                       "chunked", [](WebResponse& r) { r.start(); });
  BodySource producer;
  producer.connect(response->bodySink());
  producer.end();
  EXPECT_EQ(streamed->body.text(), ChunkedHead + "0\r\n\r\n");
  EXPECT_TRUE(streamed->body.ended());
}

TEST_F(ReplyFraming, AContentLengthBodyPassesUnchanged) {
  std::shared_ptr<FakeClientRequest> post =
      answer("GET /fixed HTTP/1.1\r\n\r\n", "Content-Length", "10", [](WebResponse& r) { r.start(); });
  ASSERT_NE(post, nullptr);
  BodySource producer;
  producer.connect(response->bodySink());
  producer.put(bodyPiece("01234"));
  producer.put(bodyPiece("56789"));
  producer.end();
  EXPECT_EQ(post->body.text(), "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789");
  EXPECT_EQ(post->body.pieces(), 3u);
  EXPECT_TRUE(post->body.ended());
}

TEST_F(ReplyFraming, ResponsesWithoutBodyGetNothingAfterTheHead) {
  std::shared_ptr<FakeClientRequest> started = answer("HEAD /feed HTTP/1.1\r\n\r\n", "Transfer-Encoding",
                                                      "chunked", [](WebResponse& r) { r.start(); });
  BodySource producer;
  producer.connect(response->bodySink());
  producer.put(bodyPiece("stray"));
  producer.end();
  EXPECT_EQ(started->body.text(), ChunkedHead);
  EXPECT_TRUE(started->body.ended());

  handler->onRequest = [](const std::shared_ptr<WebRequest>& request) {
    std::shared_ptr<WebResponse> answer = request->createResponse(304, "Not Modified");
    answer->headers().addField("Transfer-Encoding", "chunked");
    answer->send(nullptr, 0);
  };
  relay({"GET /cached HTTP/1.1\r\n\r\n"}, NextLink);
  EXPECT_EQ(replyPost()->body.text(), "HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: chunked\r\n\r\n");
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
