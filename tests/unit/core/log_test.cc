#include "core/log.h"

#include <cstdio>
#include <stdexcept>

#include <gtest/gtest.h>

#include "core/stdout_writer.h"
#include "tests/support/log_capture.h"

namespace quorvel {
namespace {

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    capture_ = testing::LogCapture::install();
    log::setGlobalLevel(log::Info);
  }
  void TearDown() override { log::setGlobalLevel(log::Notice); }

  std::shared_ptr<testing::LogCapture> capture_;
};

// A log follows the global threshold until it is given its own; one name is
// one log, whoever holds a handle to it.
TEST_F(LogTest, Thresholds) {
  const log::Log named("logtest.tuned");
  const log::Log other("logtest.other");
  EXPECT_TRUE(named.isEnabled(log::Info));
  EXPECT_FALSE(named.isEnabled(log::Debug));
  log::setLevel("logtest.tuned", log::Spam);
  EXPECT_TRUE(log::Log("logtest.tuned").isEnabled(log::Spam));
  EXPECT_FALSE(other.isEnabled(log::Debug));
  log::setLevel("logtest.tuned", 0);  // back to inheriting
  EXPECT_FALSE(named.isEnabled(log::Debug));
  log::setGlobalLevel(log::Warning);
  EXPECT_FALSE(named.isEnabled(log::Notice));
  log::setGlobalLevel(0);
  EXPECT_FALSE(named.isEnabled(log::Fatal));
}

TEST_F(LogTest, MacroFormatsOnlyEnabledMessages) {
  const log::Log named("logtest.macro");
  int evaluated = 0;
  auto count = [&evaluated] { return ++evaluated; };
  QLOG(named, log::Debug, "never %d", count());
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(capture_->lines().empty());
  QLOG(named, log::Info, "value %d and %s", count(), "text");
  ASSERT_EQ(capture_->lines().size(), 1u);
  EXPECT_EQ(capture_->lines()[0].message, "value 1 and text");
  EXPECT_EQ(capture_->lines()[0].log, "logtest.macro");
  EXPECT_EQ(capture_->lines()[0].level, log::Info);
}

TEST_F(LogTest, FormattingErrorsWriteTheFormatText) {
  const log::Log named("logtest.badformat");
  QLOG(named, log::Warning, "two %s and %s", "one");
  QLOG(named, log::Warning, "none %s", 1, 2);
  QLOG(named, log::Warning, "broken %");
  ASSERT_EQ(capture_->lines().size(), 3u);
  EXPECT_EQ(capture_->lines()[0].level, log::Warning);
  const char* const expected[] = {"two %s and %s", "none %s", "broken %"};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(capture_->lines()[i].message, expected[i] + std::string(" (log formatting error)"));
  }
}

class ThrowingWriter : public LogWriter {
 public:
  void write(Time, const log::Log&, int, int, const std::string&) override { throw std::runtime_error("broken"); }
};

TEST_F(LogTest, ThrowingWriterIsSkipped) {
  log::addWriter(std::make_shared<ThrowingWriter>());
  const log::Log named("logtest.throwing");
  EXPECT_NO_THROW(named.write(log::Error, "still delivered"));
  EXPECT_TRUE(capture_->contains("still delivered"));
}

TEST(LevelName, KnownAndUnknown) {
  EXPECT_EQ(log::levelName(1), "FATAL");
  EXPECT_EQ(log::levelName(4), "NOTICE");
  EXPECT_EQ(log::levelName(7), "SPAM");
  EXPECT_EQ(log::levelName(9), "[9]");
  EXPECT_EQ(log::levelName(0), "[0]");
}

std::string writeLine(const log::Log& handle, int level, int id, const std::string& message, Time time) {
  char* data = nullptr;
  std::size_t size = 0;
  std::FILE* memory = open_memstream(&data, &size);
  {
    log::StdoutWriter writer(memory);
    writer.write(time, handle, level, id, message);
  }
  std::fclose(memory);
  std::string text(data, size);
  std::free(data);
  return text;
}

TEST(StdoutWriter, LineFormat) {
  const Time time(1394183702318000);
  EXPECT_EQ(writeLine(log::Log("ferrule"), log::Notice, 0, "Starting", time),
            "2014-03-07 09:15:02.318 NOTICE [ferrule] Starting\n");
  EXPECT_EQ(writeLine(log::Log("name"), log::Info, 3, "text", time), "2014-03-07 09:15:02.318 INFO id: 3 [name] text\n");
  EXPECT_EQ(writeLine(log::Log(""), 9, 0, "bare", time), "2014-03-07 09:15:02.318 [9] bare\n");
}

}  // namespace
}  // namespace quorvel
