#include <string>

#include "tests/unit/revhttp/revhttp_fixture.h"

namespace quorvel {
namespace testing {
namespace {

const std::string NextLink = "Link: </rhttp/relay/k1/2>; rel=\"next\"\r\n";
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

  std::shared_ptr<WebResponse> response;
};

// Answers that are started and then streamed.
TEST_F(ReplyFraming, AStreamedResponseIsFramedPieceByPieceAsItsHeadSays) {
  struct Case {
    const char* request;
    const char* field;
    const char* value;
    std::vector<std::string> pieces;
    std::string expected;
  } const cases[] = {
      // An empty piece would end the body if it were framed.
      {"GET /feed", "Transfer-Encoding", "chunked", {"hello", "", std::string(300, 'z')},
       ChunkedHead + "5\r\nhello\r\n12C\r\n" + std::string(300, 'z') + "\r\n0\r\n\r\n"},
      {"GET /none", "Transfer-Encoding", "chunked", {}, ChunkedHead + "0\r\n\r\n"},
      {"GET /fixed", "Content-Length", "10", {"01234", "56789"},
       "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789"},
      {"HEAD /feed", "Transfer-Encoding", "chunked", {"stray"}, ChunkedHead},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    restart(allocator);
    std::shared_ptr<FakeClientRequest> post =
        answer(std::string(c.request) + " HTTP/1.1\r\n\r\n", c.field, c.value, [](WebResponse& r) { r.start(); });
    ASSERT_NE(post, nullptr);
    BodySource producer;
    producer.connect(response->bodySink());
    for (const std::string& piece : c.pieces) producer.put(bodyPiece(piece));
    producer.end();
    EXPECT_EQ(post->body.text(), c.expected);
    EXPECT_TRUE(post->body.ended());
  }
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

// With the pool spent a piece has no size line: the pending request ends and
// its reply is given up rather than sent unframed.
TEST_F(ReplyFraming, NoBuffersToFrameAPieceEndsThePendingRequest) {
  std::shared_ptr<FakeClientRequest> post =
      answer("GET /feed HTTP/1.1\r\n\r\n", "Transfer-Encoding", "chunked", [](WebResponse& r) { r.start(); });
  ASSERT_NE(post, nullptr);
  BodySource producer;
  producer.connect(response->bodySink());
  BufferChainPtr piece = bodyPiece("piece");
  allocator->dry = true;
  producer.put(piece);
  bool logged = false;
  for (const LogCapture::Line& line : logs->lines()) {
    logged |= line.level == log::Error && line.message.find(": No buffers to frame 5 bytes of reply data") != std::string::npos;
  }
  EXPECT_TRUE(logged);
  EXPECT_EQ(client->activeCount(), 0u);
  EXPECT_GT(post->cancels, 0);
  EXPECT_EQ(post->body.text(), ChunkedHead);
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
    restart(allocator);
    const std::string body = c.body;
    std::shared_ptr<FakeClientRequest> post =
        answer(std::string(c.request) + " HTTP/1.1\r\n\r\n", c.field, c.value,
               [body](WebResponse& r) { r.send(body.data(), body.size()); });
    ASSERT_NE(post, nullptr);
    EXPECT_EQ(post->body.text(), c.expected);
    EXPECT_EQ(post->body.pieces(), 1u);
    EXPECT_TRUE(post->body.ended());
    // All of it before the head goes out, so that it leaves in one write.
    EXPECT_EQ(post->piecesAtStart, 1u);
    EXPECT_TRUE(post->endedAtStart);
    // A reply sent whole is not cancelled when its answer comes: its
    // connection goes back to be used again.
    respond(*post, "HTTP/1.1 200 OK\r\n");
    EXPECT_EQ(post->cancels, 0);
  }
}

TEST_F(ReplyFraming, ANotModifiedAnswerGetsNothingAfterTheHead) {
  handler->onRequest = [](const std::shared_ptr<WebRequest>& request) {
    std::shared_ptr<WebResponse> answer = request->createResponse(304, "Not Modified");
    answer->headers().addField("Transfer-Encoding", "chunked");
    answer->send(nullptr, 0);
  };
  registered();
  relay({"GET /cached HTTP/1.1\r\n\r\n"}, NextLink);
  EXPECT_EQ(replyPost()->body.text(), "HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: chunked\r\n\r\n");
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
