#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "chain_text.h"
#include "http/encoding_parser.h"
#include "tests/support/log_capture.h"

namespace quorvel {
namespace {

using testing::chainOf;
using testing::textOf;

struct Outcome {
  std::string data;
  bool finished = false;
  bool failed = false;
  bool operator==(const Outcome& o) const { return data == o.data && finished == o.finished && failed == o.failed; }
};

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
  return out << "{data '" << o.data << "' finished " << o.finished << " failed " << o.failed << "}";
}

class ParserTest : public ::testing::Test {
 protected:
  // Small buffers so that pieces straddle buffer boundaries too.
  std::shared_ptr<BufferPool> pool_ = std::make_shared<BufferPool>(7, 0, 0);

  Outcome run(WebEncodingParser& parser, const std::vector<std::string>& pieces, bool endInput = false) {
    Outcome outcome;
    for (const std::string& piece : pieces) {
      BufferChain chain = chainOf(*pool_, piece);
      parser.feed(chain);
      EXPECT_TRUE(chain.empty());
      if (BufferChainPtr data = parser.takeData()) outcome.data += textOf(data.chain());
    }
    if (endInput) parser.end();
    outcome.finished = parser.isFinished();
    outcome.failed = parser.isFailed();
    return outcome;
  }

  Outcome chunked(const std::vector<std::string>& pieces, bool endInput = false) {
    ChunkedEncodingParser parser(pool_);
    return run(parser, pieces, endInput);
  }

  void TearDown() override {
    // Every buffer went back: nothing leaked or was released twice.
    EXPECT_EQ(pool_->freeBuffers(), pool_->totalBuffers());
  }
};

struct ChunkedCase {
  std::string body;
  Outcome expected;
};

const std::vector<ChunkedCase>& chunkedCases() {
  static const std::vector<ChunkedCase> cases = {
      {"5\r\nhello\r\n0\r\n\r\n", {"hello", true, false}},
      {"5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", {"hello world", true, false}},
      {"A;name=value\r\n0123456789\r\n0\r\n\r\n", {"0123456789", true, false}},
      {"1f \r\n" + std::string(31, 'x') + "\r\n0\r\n\r\n", {std::string(31, 'x'), true, false}},
      {"0\r\n\r\n", {"", true, false}},
      {"0\r\n\r\nextra after the end", {"", true, false}},
      {"5\r\nhelloXY0\r\n\r\n", {"hello", false, true}},
      {"5\r\nhello\r\n0\r\nTrailer: x\r\n\r\n", {"hello", false, true}},
      {"zz\r\nhello\r\n", {"", false, true}},
      {"\r\nhello\r\n", {"", false, true}},
      {"5 x\r\nhello\r\n", {"", false, true}},
      {"100000000\r\n", {"", false, true}},
      {"5\r\nhel", {"hel", false, false}},
      {"3\r\nabc\r\n2\r\nde\r", {"abcde", false, false}},
  };
  return cases;
}

// The cut at 0 gives the whole body in one piece.
TEST_F(ParserTest, ChunkedBodiesSplitAtEveryPosition) {
  for (const ChunkedCase& c : chunkedCases()) {
    for (std::size_t cut = 0; cut <= c.body.size(); ++cut) {
      EXPECT_EQ(chunked({c.body.substr(0, cut), c.body.substr(cut)}), c.expected) << c.body << " cut at " << cut;
    }
    std::vector<std::string> bytes;
    for (char ch : c.body) bytes.emplace_back(1, ch);
    EXPECT_EQ(chunked(bytes), c.expected) << c.body << " byte by byte";
  }
}

TEST_F(ParserTest, ChunkedLogsItsFailures) {
  auto capture = testing::LogCapture::install();
  chunked({"5\r\nhelloXY"});
  EXPECT_TRUE(capture->contains("Malformed chunk trailer"));
  chunked({"zz;x\r\n"});
  EXPECT_TRUE(capture->contains("Failed to parse chunk header: zz;x"));
  chunked({"5\r\nhello\r\n0\r\nX: y\r\n\r\n"});
  EXPECT_EQ(capture->count("Malformed chunk trailer"), 2u);
}

TEST_F(ParserTest, ChunkHeaderIsHeldBackUpTo64Bytes) {
  auto capture = testing::LogCapture::install();
  const std::string longHeader = "5" + std::string(62, ' ');
  EXPECT_EQ(chunked({longHeader, "\r\nhello\r\n0\r\n\r\n"}), (Outcome{"hello", true, false}));
  EXPECT_EQ(chunked({longHeader + " "}), (Outcome{"", false, true}));
  EXPECT_TRUE(capture->contains("Parsing header; CRLF not found in 64 bytes"));
  // The same line in one piece has its CRLF and is fine.
  EXPECT_EQ(chunked({longHeader + " \r\nhello\r\n0\r\n\r\n"}), (Outcome{"hello", true, false}));
}

TEST_F(ParserTest, ChunkedNeedsItsEnd) {
  EXPECT_EQ(chunked({"5\r\nhello\r\n"}, true), (Outcome{"hello", false, true}));
  EXPECT_EQ(chunked({"5\r\nhello\r\n0\r\n\r\n"}, true), (Outcome{"hello", true, false}));
}

TEST_F(ParserTest, NothingPassesAfterAFailure) {
  ChunkedEncodingParser parser(pool_);
  EXPECT_EQ(run(parser, {"2\r\nabXX", "2\r\ncd\r\n0\r\n\r\n"}), (Outcome{"ab", false, true}));
  EXPECT_EQ(parser.takeData(), BufferChainPtr());
}

TEST_F(ParserTest, PlainWithLengthStopsThere) {
  PlainEncodingParser parser(true, 10);
  EXPECT_EQ(run(parser, {"01234", "56789abc", "more"}), (Outcome{"0123456789", true, false}));
  PlainEncodingParser exact(true, 3);
  EXPECT_EQ(run(exact, {"abc"}), (Outcome{"abc", true, false}));
  PlainEncodingParser empty(true, 0);
  EXPECT_TRUE(empty.isFinished());
  PlainEncodingParser cut(true, 10);
  EXPECT_EQ(run(cut, {"01234"}, true), (Outcome{"01234", false, true}));
}

TEST_F(ParserTest, PlainWithoutLengthRunsToTheEnd) {
  PlainEncodingParser parser(false, 0);
  EXPECT_EQ(run(parser, {"ab", "", "cd"}), (Outcome{"abcd", false, false}));
  parser.end();
  EXPECT_TRUE(parser.isFinished());
  EXPECT_FALSE(parser.isFailed());
}

}  // namespace
}  // namespace quorvel
