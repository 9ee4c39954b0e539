#include "core/log.h"

#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string_view>

#include <boost/format.hpp>
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

// The arguments reach Boost.Format through a few erased kinds: each must
// print exactly as Boost.Format prints the call site's own type.
enum Unscoped { Seven = 7 };
enum Small : uint8_t { Nine = 9 };

std::string formatted(const char* text, std::initializer_list<log::LogArg> args) {
  return log::formatMessage(log::parseFormat(text), text, args);
}

template <typename T>
void expectAsBoostFormat(const T& value) {
  for (const char* directive : {"%s", "%d", "%i", "%u", "%x", "%02d", "%5s", "%f", "%.1f", "%.0f"}) {
    const std::string format = std::string("<") + directive + ">";
    SCOPED_TRACE(format);
    EXPECT_EQ(formatted(format.c_str(), {value}), (boost::format(format) % value).str());
  }
}

TEST(LogFormat, EachArgumentTypeAsBoostFormatPrintsIt) {
  for (int v : {0, 42, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) expectAsBoostFormat(v);
  for (unsigned v : {0u, 7u, 0xdeadbeefu, std::numeric_limits<unsigned>::max()}) expectAsBoostFormat(v);
  for (int16_t v : {int16_t(-2), int16_t(300)}) expectAsBoostFormat(v);
  for (uint16_t v : {uint16_t(0), uint16_t(65535)}) expectAsBoostFormat(v);
  for (int64_t v : {int64_t(-1), std::numeric_limits<int64_t>::min(), int64_t(1) << 40}) expectAsBoostFormat(v);
  for (uint64_t v : {uint64_t(0), std::numeric_limits<uint64_t>::max()}) expectAsBoostFormat(v);
  expectAsBoostFormat(-5L);
  expectAsBoostFormat(std::size_t(123456));
  expectAsBoostFormat(true);
  expectAsBoostFormat(false);
  expectAsBoostFormat('a');
  expectAsBoostFormat(uint8_t(65));  // a character, as a stream prints it
  expectAsBoostFormat(int8_t(66));
  for (double v : {0.0, 0.1, -2.5, 1234567.0, 1e-7, 3.0, 0.05, 12.25}) expectAsBoostFormat(v);
  expectAsBoostFormat(1.5f);
  expectAsBoostFormat("text");
  expectAsBoostFormat(std::string("with space"));
  expectAsBoostFormat(std::string("nul\0inside", 10));
  expectAsBoostFormat(std::string());
  expectAsBoostFormat(std::string_view("view"));
  expectAsBoostFormat(Seven);
  expectAsBoostFormat(Nine);
}

TEST(LogFormat, TextAroundDirectivesAndSeveralArguments) {
  const std::string name = "relay";
  const char* const format = "0x%x: %s %u%% done, %d left\n%s";
  EXPECT_EQ(formatted(format, {255u, name, 50, -3, "end"}),
            (boost::format(format) % 255u % name % 50 % -3 % "end").str());
  EXPECT_EQ(formatted("plain", {}), "plain");
  EXPECT_EQ(formatted("", {}), "");
  EXPECT_EQ(formatted("%%%s%%", {1}), "%1%");
}

// Flags, widths and precisions beyond the common directives, each with a
// few argument types: printed as Boost.Format prints them.
TEST(LogFormat, OtherDirectivesAsBoostFormatPrintsThem) {
  const char* const directives[] = {"%X", "%08X", "%-05d", "%05d", "%06.1f", "%.2s", "%4.1s", "%lu", "%zu",
                                    "%hd", "%05s", "%-6x", "%.3d", "%5.0f"};
  for (const char* directive : directives) {
    SCOPED_TRACE(directive);
    EXPECT_EQ(formatted(directive, {-3}), (boost::format(directive) % -3).str());
    EXPECT_EQ(formatted(directive, {0xabcu}), (boost::format(directive) % 0xabcu).str());
    EXPECT_EQ(formatted(directive, {int16_t(-300)}), (boost::format(directive) % int16_t(-300)).str());
    EXPECT_EQ(formatted(directive, {-2.5}), (boost::format(directive) % -2.5).str());
    EXPECT_EQ(formatted(directive, {1e-7}), (boost::format(directive) % 1e-7).str());
    EXPECT_EQ(formatted(directive, {"abc"}), (boost::format(directive) % "abc").str());
    EXPECT_EQ(formatted(directive, {'z'}), (boost::format(directive) % 'z').str());
    EXPECT_EQ(formatted(directive, {true}), (boost::format(directive) % true).str());
  }
  // Longer than any number's usual room.
  EXPECT_EQ(formatted("%f", {1e60}), (boost::format("%f") % 1e60).str());
  EXPECT_EQ(formatted("%.0f|%-3s|", {-1e300, "a"}), (boost::format("%.0f|%-3s|") % -1e300 % "a").str());
}

// Syntax that log texts do not use does not parse: the message says so
// rather than print something else.
TEST(LogFormat, SyntaxOutsideTheLogsSubsetIsAFormattingError) {
  for (const char* text : {"%1%", "%1$d", "%+d", "% d", "%#x", "%c", "%e", "%g", "%o", "%p", "%|5d|", "%*d",
                           "%5", "%-", "%.", "%l", "%99999d"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(formatted(text, {1}), text + std::string(" (log formatting error)"));
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

// The middle of the table and a number past it are in the line format's test.
TEST(LevelName, KnownAndUnknown) {
  EXPECT_EQ(log::levelName(1), "FATAL");
  EXPECT_EQ(log::levelName(7), "SPAM");
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
