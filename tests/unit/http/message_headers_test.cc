#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "http/message_headers.h"

namespace quorvel {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

using Fields = std::vector<std::pair<std::string, std::string>>;

Fields fieldsOf(const MessageHeaders& headers) {
  Fields fields;
  for (const auto& field : headers) fields.emplace_back(field.name.str(), field.value.str());
  return fields;
}

std::string wire(const MessageHeaders& headers) { return std::string(headers.data(), headers.size()); }

MessageHeaders request(const std::string& text) { return MessageHeaders::parseRequest(text.data(), text.size()); }
MessageHeaders response(const std::string& text) { return MessageHeaders::parseResponse(text.data(), text.size()); }

TEST(MessageHeadersParse, RequestHeadRoundTrips) {
  const std::string text = "GET /a HTTP/1.1\r\nHost: x\r\n";
  const MessageHeaders headers = request(text);
  ASSERT_TRUE(headers.isValid());
  EXPECT_EQ(headers.method().str(), "GET");
  EXPECT_EQ(headers.requestTarget().str(), "/a");
  EXPECT_EQ(headers.version().str(), "HTTP/1.1");
  EXPECT_EQ(headers.statusCode(), 0u);
  EXPECT_EQ(fieldsOf(headers), (Fields{{"Host", "x"}}));
  EXPECT_EQ(wire(headers), text + "\r\n");
  // One trailing empty line is the same head.
  EXPECT_EQ(wire(request(text + "\r\n")), text + "\r\n");
}

TEST(MessageHeadersParse, ResponseStatusLine) {
  const MessageHeaders headers = response("HTTP/1.0 404 Not Found Here\r\n");
  ASSERT_TRUE(headers.isValid());
  EXPECT_EQ(headers.version().str(), "HTTP/1.0");
  EXPECT_EQ(headers.statusCode(), 404u);
  EXPECT_EQ(headers.reason().str(), "Not Found Here");
  EXPECT_TRUE(headers.method().empty());
  EXPECT_EQ(headers.begin(), headers.end());
}

TEST(MessageHeadersParse, RejectsBadStartAndFieldLines) {
  for (const char* text : {"HTTP/1.1 20 OK\r\n", "HTTP/1.1 2x0 OK\r\n", "HTTP/1.1 2000 OK\r\n", "HTTP/1.1 200\r\n",
                           "HTTP/1.1 200 \r\n", " 200 OK\r\n", "HTTP/1.1  200 OK\r\n", "HTTP/1.1 200 OK", "", "\r\n"}) {
    const MessageHeaders headers = response(text);
    EXPECT_FALSE(headers.isValid()) << text;
    EXPECT_EQ(headers.size(), 0u);
    EXPECT_TRUE(headers.version().empty());
    EXPECT_EQ(headers.statusCode(), 0u);
  }
  // Bad start lines, then a field without line end or colon, a continuation
  // of nothing and empty lines inside.
  for (const char* text : {"GET /a HTTP/1.1 x\r\n", "GET /a\r\n", "GET  HTTP/1.1\r\n", "GET /a \r\n",
                           "GET / HTTP/1.1\r\nHost: x", "GET / HTTP/1.1\r\nno colon\r\n",
                           "GET / HTTP/1.1\r\n folded first\r\n", "GET / HTTP/1.1\r\n\r\nHost: x\r\n",
                           "GET / HTTP/1.1\r\nA: b\r\n\r\n\r\n"}) {
    EXPECT_FALSE(request(text).isValid()) << text;
  }
  EXPECT_TRUE(request("GET / HTTP/1.1\r\n: empty name\r\n").isValid());
  EXPECT_TRUE(request("GET / HTTP/1.1\r\nA: b\r\n\tmore\r\n").isValid());
}

TEST(MessageHeadersFields, TrimsAndJoinsContinuationLines) {
  const MessageHeaders headers = request("GET / HTTP/1.1\r\n  A :  one  \r\nB: two\r\n  three\r\nC:\r\nD:x:y\r\n");
  EXPECT_EQ(fieldsOf(headers), (Fields{{"A", "one"}, {"B", "two\r\n  three"}, {"C", ""}, {"D", "x:y"}}));
  EXPECT_EQ(headers.find("a")->value.str(), "one");  // its line starts blank
  // A lone carriage return, even right before a line end, ends no line.
  EXPECT_EQ(fieldsOf(request("GET / HTTP/1.1\r\nX: a\rb\r\r\nY: c\r\n")), (Fields{{"X", "a\rb"}, {"Y", "c"}}));
}

TEST(MessageHeadersFields, FindIgnoresCaseAndTakesTheFirst) {
  const MessageHeaders headers = request("GET / HTTP/1.1\r\nContent-Length: 5\r\ncontent-length: 6\r\n");
  const auto field = headers.find("content-LENGTH");
  ASSERT_NE(field, headers.end());
  EXPECT_EQ(field->value.str(), "5");
  EXPECT_EQ(headers.find("Content-Lengt"), headers.end());
  EXPECT_EQ(headers.find("Content-Length-X"), headers.end());
}

// Several names in one walk: the first field of each, as find() gives it,
// whatever their order, and end() for a name that is not there.
TEST(MessageHeadersFields, FindFieldsGivesWhatFindGivesForEach) {
  const MessageHeaders h = response(
      "HTTP/1.1 200 OK\r\nContent-Type: a\r\n content-type-cont\r\nCONTENT-LENGTH: 5\r\nconnection: close\r\n"
      "Content-Length: 6\r\n\r\n");
  const StringSection names[] = {"Connection", "Transfer-Encoding", "Content-Length", "content-type"};
  MessageHeaders::FieldIterator found[4];
  h.findFields(names, found, 4);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(h.find(names[i]), found[i]) << names[i];
  EXPECT_EQ("5", found[2]->value.str());
  EXPECT_EQ(h.end(), found[1]);
  const MessageHeaders::Framing framing = h.framing();
  EXPECT_EQ(found[2], framing.length);
  EXPECT_FALSE(framing.chunked());
}

// The framing fields are found without a walk, from where the parse noted
// them or the first look after fields were added: they must be exactly the
// fields a walk finds.
MessageHeaders::FieldIterator walkFind(const MessageHeaders& h, StringSection name) {
  for (auto it = h.begin(); it != h.end(); ++it) {
    if (it->name.equalsIgnoreCase(name)) return it;
  }
  return h.end();
}

void expectFramingAsWalked(const MessageHeaders& h, const std::string& what) {
  using Field = MessageHeaders::FramingField;
  EXPECT_EQ(walkFind(h, "Content-Length"), h.framingField(Field::ContentLength)) << what;
  EXPECT_EQ(walkFind(h, "transfer-encoding"), h.framingField(Field::TransferEncoding)) << what;
  EXPECT_EQ(walkFind(h, "CONNECTION"), h.framingField(Field::Connection)) << what;
  const MessageHeaders::Framing framing = h.framing();
  EXPECT_EQ(walkFind(h, "Content-Length"), framing.length) << what;
  EXPECT_EQ(walkFind(h, "Transfer-Encoding"), framing.encoding) << what;
}

TEST(MessageHeadersFraming, ParsedHeadsNoteTheFieldsAWalkFinds) {
  for (const char* text : {
           "HTTP/1.1 200 OK\r\n",
           "HTTP/1.1 200 OK\r\nContent-Length: 5\r\ncontent-length: 6\r\n",
           // The first field line may start blank; a later one continues a field.
           "HTTP/1.1 200 OK\r\n  connection :  close \r\nTransfer-Encoding: chunked\r\n",
           "HTTP/1.1 200 OK\r\nX: a\r\n Content-Length: 7\r\nContent-Length: 8\r\n",
           "HTTP/1.1 200 OK\r\nContent-Length\t: 9\r\nTransfer-Encoding:\r\nTransfer-Encoding: x\r\n",
           "HTTP/1.1 200 OK\r\nContent-Lengths: 1\r\nConnection-X: y\r\nTransfer-Encodin: z\r\nX: Connection\r\n",
           "HTTP/1.1 200 OK\r\nContent-Lengtx: 1\r\nConnectiom: y\r\nTransfer-Encodinh: z\r\n: e\r\n",
       }) {
    expectFramingAsWalked(response(text), text);
  }
}

TEST(MessageHeadersFraming, BuiltCopiedAndReusedHeadsNoteTheFieldsAWalkFinds) {
  MessageHeaders h = MessageHeaders::response(HttpStatus::Ok);
  expectFramingAsWalked(h, "no fields");
  // Fields added after a look: found again.
  for (const char* name : {"X-Long-Name-Here", "Content-Length", "connection", "Transfer-Encoding"}) {
    h.addField(name, "1");
    expectFramingAsWalked(h, std::string("added ") + name);
  }
  EXPECT_EQ("1", h.framing().length->value.str());
  // Across the block growing.
  MessageHeaders grown = MessageHeaders::response(HttpStatus::Ok);
  for (int i = 0; i < 40; ++i) grown.addField("X-Filler", std::string(20, 'f'));
  grown.addField("Content-Length", "4");
  grown.addField("Transfer-Encoding", "chunked");
  expectFramingAsWalked(grown, "grown");

  const MessageHeaders copy(grown);
  expectFramingAsWalked(copy, "copy");
  MessageHeaders moved(std::move(grown));
  expectFramingAsWalked(moved, "moved");
  expectFramingAsWalked(grown, "moved from");
  MessageHeaders parsed = response("HTTP/1.1 200 OK\r\nConnection: close\r\n");
  parsed.swap(moved);
  expectFramingAsWalked(parsed, "swapped in");
  expectFramingAsWalked(moved, "swapped out");
  // A head used again keeps nothing of the fields it had.
  parsed.assignRequest("GET", "/");
  expectFramingAsWalked(parsed, "assigned");
  EXPECT_EQ(parsed.end(), parsed.framing().length);
  const std::string text = "GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n";
  parsed.assignParsed(MessageHeaders::Kind::Request, text.size(),
                      [&text](char* out) { text.copy(out, text.size()); });
  expectFramingAsWalked(parsed, "parsed into");
  EXPECT_TRUE(parsed.framing().chunked());
  // Fields copied from another head are written as addField writes them.
  for (const char* text : {
           "HTTP/1.1 200 OK\r\nContent-Length: 5\r\ncontent-length: 6\r\n",
           "HTTP/1.1 200 OK\r\n  connection :  close \r\nX: a\r\n b\r\nTransfer-Encoding: chunked\r\nE:\r\n",
           // Lines that read exactly as they would be written, or nearly.
           "HTTP/1.1 200 OK\r\nE: \r\n: v\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n",
           "HTTP/1.1 200 OK\r\nA: b\r\nE:\r\n",
           "HTTP/1.1 200 OK\r\nA: b\r\nE:  x\r\n",
           "HTTP/1.1 200 OK\r\nA: b\r\nE: x\t\r\n",
           "HTTP/1.1 200 OK\r\nA: b\r\nE : x\r\n",
           "HTTP/1.1 200 OK\r\nA: b\r\nE:x\r\n",
           "HTTP/1.1 200 OK\r\nA: b\r\n\tE: x\r\n",
       }) {
    const MessageHeaders source = response(text);
    for (const char* already : {"", "Content-Length", "X-Other"}) {
      MessageHeaders byField = MessageHeaders::response(HttpStatus::Ok);
      MessageHeaders whole = MessageHeaders::response(HttpStatus::Ok);
      if (*already) {
        byField.addField(already, "0");
        whole.addField(already, "0");
        // Looked at before the copy, or not.
        if (std::string(already) == "Content-Length") expectFramingAsWalked(whole, "before copying");
      }
      for (const auto& field : source) byField.addField(field.name, field.value);
      whole.appendFields(source);
      EXPECT_EQ(wire(byField), wire(whole)) << text;
      // And on from the copy, as written again.
      MessageHeaders again = MessageHeaders::response(HttpStatus::Ok);
      again.appendFields(whole);
      EXPECT_EQ(wire(byField), wire(again)) << text;
      expectFramingAsWalked(again, std::string("copied on from ") + text);
      expectFramingAsWalked(whole, std::string("copied after ") + already + " from " + text);
    }
  }
  // Onto itself, with the block growing under the copy.
  const std::string fields = "A: " + std::string(300, 'a') + "\r\nConnection: close\r\n";
  MessageHeaders twice = response("HTTP/1.1 200 OK\r\n" + fields);
  twice.appendFields(twice);
  EXPECT_EQ("HTTP/1.1 200 OK\r\n" + fields + fields + "\r\n", wire(twice));
  expectFramingAsWalked(twice, "copied onto itself");
  const MessageHeaders invalid = response("nonsense");
  EXPECT_EQ(invalid.end(), invalid.framingField(MessageHeaders::FramingField::Connection));
}

// A head used for one request after another keeps its block and nothing else.
TEST(MessageHeadersBuild, AnAssignedRequestLineReplacesEverything) {
  MessageHeaders h = MessageHeaders::request("POST", "/a");
  h.addField("X-Old", "1");
  const char* block = h.data();
  h.assignRequest("GET", "/b");
  EXPECT_EQ("GET /b HTTP/1.1\r\n\r\n", wire(h));
  EXPECT_EQ(block, h.data());
  EXPECT_TRUE(fieldsOf(h).empty());
  EXPECT_EQ("/b", h.requestTarget().str());
  h.assignRequest("GET", std::string(600, 'x'));
  EXPECT_FALSE(h.isValid());
}

TEST(MessageHeadersBuild, WritesStartLinesInOneBlock) {
  const MessageHeaders ok = MessageHeaders::response(HttpStatus::NotFound, HttpVersion::V11);
  EXPECT_EQ(wire(ok), "HTTP/1.1 404 Not Found\r\n\r\n");
  EXPECT_EQ(ok.capacity(), 512u);
  EXPECT_EQ(ok.reason().str(), "Not Found");
  EXPECT_EQ(ok.statusCode(), 404u);
  const MessageHeaders get = MessageHeaders::request("GET", "/x?y", HttpVersion::V10);
  EXPECT_EQ(wire(get), "GET /x?y HTTP/1.0\r\n\r\n");
  EXPECT_EQ(get.requestTarget().str(), "/x?y");
}

TEST(MessageHeadersBuild, StartLineOverTheBlockIsInvalid) {
  // 8 + 3 + reason + 4: a reason of 497 bytes is exactly 512.
  const MessageHeaders fits = MessageHeaders::response(200, std::string(497, 'r'), HttpVersion::V11);
  ASSERT_TRUE(fits.isValid());
  EXPECT_EQ(fits.size(), 514u);
  MessageHeaders tooLong = MessageHeaders::response(200, std::string(498, 'r'), HttpVersion::V11);
  EXPECT_FALSE(tooLong.isValid());
  EXPECT_TRUE(MessageHeaders::request("GET", std::string(497, '/'), HttpVersion::V11).isValid());
  EXPECT_FALSE(MessageHeaders::request("GET", std::string(498, '/'), HttpVersion::V11).isValid());
  EXPECT_THAT([&] { tooLong.addField("A", "b"); },
              ThrowsMessage<std::logic_error>(StrEq("Can't add a field to invalid MessageHeaders")));
}

TEST(MessageHeadersBuild, AddFieldGrowsInBlocksAndKeepsViews) {
  MessageHeaders headers = MessageHeaders::response(HttpStatus::Ok, HttpVersion::V11);
  headers.addField(HttpHeader::ContentLength, 10000u);
  std::string expected = "HTTP/1.1 200 OK\r\nContent-Length: 10000\r\n";
  for (int i = 0; i < 40; ++i) {
    const std::string value(20 + i, static_cast<char>('a' + i % 26));
    headers.addField("X-" + std::to_string(i), value);
    expected += "X-" + std::to_string(i) + ": " + value + "\r\n";
  }
  EXPECT_EQ(wire(headers), expected + "\r\n");
  EXPECT_EQ(headers.capacity() % 512, 0u);
  EXPECT_LT(headers.capacity() - headers.size(), 512u);
  EXPECT_EQ(headers.reason().str(), "OK");
  EXPECT_EQ(headers.version().str(), "HTTP/1.1");
  EXPECT_EQ(headers.find("x-39")->value.size(), 59u);
}

TEST(MessageHeadersBuild, CopiesOwnTheirText) {
  MessageHeaders original = request("POST /p HTTP/1.1\r\nA: 1\r\n");
  MessageHeaders copy = original;
  original.addField("B", std::string(600, 'b'));
  copy.addField("C", "3");
  EXPECT_EQ(wire(copy), "POST /p HTTP/1.1\r\nA: 1\r\nC: 3\r\n\r\n");
  EXPECT_EQ(copy.method().str(), "POST");
  EXPECT_EQ(copy.requestTarget().str(), "/p");
  MessageHeaders moved = std::move(original);
  EXPECT_FALSE(original.isValid());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved.find("b")->value.size(), 600u);
  copy = moved;
  EXPECT_EQ(wire(copy), wire(moved));
}

TEST(MessageHeadersRules, BodyRule) {
  auto parsed = [](const std::string& head) {
    return head.compare(0, 5, "HTTP/") == 0 ? response(head) : request(head);
  };
  EXPECT_FALSE(parsed("HTTP/1.1 204 No Content\r\nContent-Length: 10\r\n").hasBody());
  EXPECT_FALSE(parsed("HTTP/1.1 304 Not Modified\r\n").hasBody());
  EXPECT_FALSE(parsed("HTTP/1.1 101 Switching\r\n").hasBody());
  EXPECT_FALSE(parsed("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n").hasBody("HEAD"));
  EXPECT_TRUE(parsed("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n").hasBody("GET"));
  EXPECT_FALSE(parsed("HTTP/1.1 200 OK\r\ncontent-length: 0\r\n").hasBody());
  EXPECT_TRUE(parsed("HTTP/1.1 200 OK\r\n").hasBody());
  EXPECT_TRUE(parsed("HTTP/1.1 200 OK\r\nContent-Length: junk\r\n").hasBody());
  EXPECT_FALSE(parsed("GET / HTTP/1.1\r\n").hasBody());
  EXPECT_FALSE(parsed("POST / HTTP/1.1\r\nContent-Length: 0\r\n").hasBody());
  EXPECT_TRUE(parsed("POST / HTTP/1.1\r\nContent-Length: 3\r\n").hasBody());
  EXPECT_TRUE(parsed("POST / HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n").hasBody());
  EXPECT_FALSE(parsed("POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n").hasBody());
}

TEST(MessageHeadersRules, NoCacheOnlyWithoutCacheControl) {
  MessageHeaders plain = MessageHeaders::response(HttpStatus::Ok);
  plain.addNoCacheFields();
  EXPECT_EQ(fieldsOf(plain), (Fields{{"Cache-Control", "no-cache"}, {"Pragma", "no-cache"}}));
  MessageHeaders cached = MessageHeaders::response(HttpStatus::Ok);
  cached.addField("cache-control", "max-age=5");
  cached.addNoCacheFields();
  EXPECT_EQ(fieldsOf(cached), (Fields{{"cache-control", "max-age=5"}}));
}

TEST(MessageHeadersRules, StatusTable) {
  ASSERT_NE(HttpStatus::find(502), nullptr);
  EXPECT_STREQ(HttpStatus::find(502)->reason, "Bad Gateway");
  EXPECT_EQ(HttpStatus::find(405), &HttpStatus::MethodNotAllowed);
  EXPECT_EQ(HttpStatus::find(418), nullptr);
}

}  // namespace
}  // namespace quorvel
