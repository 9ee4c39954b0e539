#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "chain_text.h"
#include "http/head_end_finder.h"
#include "http/response_head_reader.h"
#include "tests/support/log_capture.h"

namespace quorvel {
namespace {

using testing::chainOf;
using testing::textOf;
using State = ResponseHeadReader::State;

class HeadReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { log::setLevel("httpclient", log::Debug); }
  void TearDown() override {
    log::setLevel("httpclient", 0);
    EXPECT_EQ(pool_->freeBuffers(), pool_->totalBuffers());
  }

  State feed(ResponseHeadReader& reader, const std::string& text) {
    BufferChain chain = chainOf(*pool_, text);
    return reader.feed(chain);
  }

  std::string body(ResponseHeadReader& reader) {
    BufferChain rest = reader.takeBodyBytes();
    std::string text = textOf(rest);
    rest.releaseBuffers();
    return text;
  }

  std::shared_ptr<BufferPool> pool_ = std::make_shared<BufferPool>(16, 0, 0);
};

const std::string Head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nServer: t\r\n\r\n";

// The cut at 0 gives the whole head in one piece.
TEST_F(HeadReaderTest, HeadSplitAtEveryPositionGivesTheSameResult) {
  const std::string text = Head + "hello";
  for (std::size_t cut = 0; cut <= text.size(); ++cut) {
    for (std::size_t cut2 = cut; cut2 <= text.size(); cut2 += 7) {
      ResponseHeadReader reader(1);
      feed(reader, text.substr(0, cut));
      feed(reader, text.substr(cut, cut2 - cut));
      EXPECT_EQ(feed(reader, text.substr(cut2)), State::Complete) << cut << " " << cut2;
      EXPECT_EQ(std::string(reader.headers().data(), reader.headers().size()), Head);
      EXPECT_EQ(body(reader), "hello") << cut << " " << cut2;
      EXPECT_EQ(reader.receivedBytes(), text.size());
      EXPECT_EQ(reader.contentLength(), 5u);
      EXPECT_FALSE(reader.chunked() || reader.closeConnection() || !reader.contentLengthKnown());
    }
  }
}

// Wherever the pieces are cut, the end is where a plain search of the whole
// text finds "\r\n\r\n" first, for runs of CR and LF that nearly make one.
TEST(HeadEndFinder, FindsTheFirstEmptyLineWhereverThePiecesAreCut) {
  for (const std::string text : {"A\r\nB\r\n\r\nrest", "A\r\r\n\r\nx", "A\r\n\r\r\n\r\nx", "\r\n\r\n",
                                 "A\n\r\n\r\r\n\n\r\n\r\n", "A\r\nB\r\n\r", "\r\n\rX\r\n\n"}) {
    const std::size_t expected = text.find("\r\n\r\n");
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
      for (std::size_t cut2 = cut; cut2 <= text.size(); ++cut2) {
        HeadEndFinder finder;
        for (const auto& piece : {text.substr(0, cut), text.substr(cut, cut2 - cut), text.substr(cut2)}) {
          finder.feed(piece.data(), piece.data() + piece.size());
        }
        ASSERT_EQ(finder.found(), expected != std::string::npos) << text << " " << cut << " " << cut2;
        if (finder.found()) {
          EXPECT_EQ(finder.headEnd(), expected + 4) << text << " " << cut << " " << cut2;
        }
      }
    }
  }
}

TEST_F(HeadReaderTest, MalformedHeadIsBad) {
  ResponseHeadReader reader(3);
  EXPECT_EQ(feed(reader, "HTTP/1.1 2000 OK\r\n\r\nbody"), State::Bad);
  EXPECT_FALSE(reader.headers().isValid());
}

TEST_F(HeadReaderTest, ReadsFramingAndConnectionFields) {
  ResponseHeadReader reader(4);
  feed(reader, "HTTP/1.1 200 OK\r\nconnection: Close\r\nTransfer-Encoding: CHUNKED\r\n\r\n");
  EXPECT_TRUE(reader.closeConnection());
  EXPECT_TRUE(reader.chunked());
  EXPECT_FALSE(reader.contentLengthKnown());
  PlainEncodingParser plain(false, 0);
  ChunkedEncodingParser chunked(pool_);
  EXPECT_EQ(&reader.prepareBodyParser(plain, chunked), &chunked);
}

TEST_F(HeadReaderTest, UnreadableContentLengthRunsToTheEndOfTheConnection) {
  auto capture = testing::LogCapture::install();
  ResponseHeadReader reader(5);
  feed(reader, "HTTP/1.1 200 OK\r\nContent-Length: 12x\r\n\r\n");
  EXPECT_TRUE(capture->contains("0x5: Failed to parse Content-Length field: 12x"));
  EXPECT_FALSE(reader.contentLengthKnown());
  EXPECT_TRUE(reader.closeConnection());
  EXPECT_TRUE(reader.hasBody("GET"));
  PlainEncodingParser plain(true, 3);
  ChunkedEncodingParser chunked(pool_);
  WebEncodingParser& parser = reader.prepareBodyParser(plain, chunked);
  EXPECT_EQ(&parser, &plain);
  parser.end();
  EXPECT_TRUE(parser.isFinished());
}

// A reader used for one response after another starts each one afresh.
TEST_F(HeadReaderTest, AReaderResetReadsTheNextResponseAfresh) {
  ResponseHeadReader reader(6);
  feed(reader, "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 5\r\n\r\nhel");
  ASSERT_EQ(reader.state(), State::Complete);
  reader.reset();
  EXPECT_EQ(reader.state(), State::Collecting);
  EXPECT_EQ(reader.receivedBytes(), 0u);
  EXPECT_EQ(feed(reader, "HTTP/1.1 204 No Content\r\n"), State::Collecting);
  EXPECT_EQ(feed(reader, "Server: t\r\n\r\n"), State::Complete);
  EXPECT_EQ(reader.headers().statusCode(), 204u);
  EXPECT_FALSE(reader.closeConnection());
  EXPECT_FALSE(reader.contentLengthKnown());
  EXPECT_FALSE(reader.chunked());
  EXPECT_EQ(body(reader), "");
}

}  // namespace
}  // namespace quorvel
