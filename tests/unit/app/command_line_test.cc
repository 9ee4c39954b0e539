#include "app/command_line.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include <boost/lexical_cast.hpp>

#include <gtest/gtest.h>

#include "core/log.h"

namespace quorvel {
namespace ferrule {
namespace {

// Collects what is written to a stdio stream.
class Written {
 public:
  Written() : stream_(open_memstream(&data_, &size_)) {}
  ~Written() {
    close();
    std::free(data_);
  }
  std::FILE* stream() { return stream_; }
  std::string text() {
    close();
    return std::string(data_, size_);
  }

 private:
  void close() {
    if (stream_) std::fclose(stream_);
    stream_ = nullptr;
  }
  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* stream_;
};

std::string usage() {
  Written out;
  printUsage(out.stream());
  return out.text();
}

struct Parsed {
  int status;
  CommandLine options;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<const char*> args) {
  args.insert(args.begin(), "ferrule");
  Parsed parsed;
  Written out, err;
  parsed.status = parseCommandLine(static_cast<int>(args.size()), args.data(), parsed.options, out.stream(), err.stream());
  parsed.out = out.text();
  parsed.err = err.text();
  return parsed;
}

TEST(CommandLine, UsageText) {
  std::ostringstream expected;
  expected << std::ifstream(FERRULE_APP_TEST_DATA "/usage.txt").rdbuf();
  EXPECT_EQ(usage(), expected.str());
}

TEST(CommandLine, DefaultsAndOverrides) {
  Parsed p = parse({"-r", "relay.example", "-s", "stun.example"});
  EXPECT_EQ(p.status, ContinueRunning);
  EXPECT_EQ(p.options.registrationFile, "devicereg.info");
  EXPECT_EQ(p.options.targetHost, "localhost");
  p = parse({"-r", "a", "-r", "b", "-s", "s", "-t", "-x", "-f", "reg", "-l", "6", "-l", "revhttp:7"});
  EXPECT_EQ(p.status, ContinueRunning);
  EXPECT_EQ(p.options.relayUrlBase, "b");
  EXPECT_EQ(p.options.targetHost, "-x");
  EXPECT_EQ(p.options.registrationFile, "reg");
  EXPECT_EQ(p.options.logSpecs, (std::vector<std::string>{"6", "revhttp:7"}));
  EXPECT_TRUE(p.out.empty());
  EXPECT_TRUE(p.err.empty());
}

// Errors about the arguments as a whole are set off from the usage by an
// empty line; a missing option value runs straight into it.
TEST(CommandLine, ErrorsPrecedeTheUsageOnStderr) {
  struct Case {
    std::vector<const char*> args;
    const char* message;
  } cases[] = {
      {{}, "Please specify a relay URL base\n"},
      {{"-r", "relay"}, "Please specify a STUN server name\n"},
      {{"-r", "", "-s", "stun"}, "Please specify a relay URL base\n"},
      {{"-rfoo"}, "Unknown argument: -rfoo\n"},
      {{"-x", "-h"}, "Unknown argument: -x\n"},
      {{"-ff"}, "Unknown argument: -ff\n"},
      {{"x"}, "Argument not understood: x\n"},
      {{"-"}, "Argument not understood: -\n"},
      {{"-r", "a", "-s", "b", "extra"}, "Argument not understood: extra\n"},
      {{"-r", "relay", "-f"}, "-f: Please specify a filename"},
      {{"-r", "relay", "-r"}, "-r: Please specify a relay URL base"},
      {{"-r", "relay", "-s"}, "-s: Please specify a STUN server name"},
      {{"-r", "relay", "-t"}, "-t: Please specify a target name"},
      {{"-r", "relay", "-l"}, "-l: Please specify a log level specification"},
  };
  for (const Case& c : cases) {
    Parsed p = parse(c.args);
    EXPECT_EQ(p.status, 1) << c.message;
    EXPECT_EQ(p.err, std::string("ferrule: ") + c.message + "\n" + usage());
    EXPECT_TRUE(p.out.empty());
  }
}

TEST(CommandLine, HelpGoesToStdoutAndStopsParsing) {
  Parsed p = parse({"-h", "-bogus"});
  EXPECT_EQ(p.status, 0);
  EXPECT_EQ(p.out, usage());
  EXPECT_TRUE(p.err.empty());
}

// Levels are read as boost::lexical_cast<int> reads them; anything it refuses
// throws its exception, which nothing catches.
TEST(CommandLine, LogLevelsReadAsLexicalCastReadsThem) {
  for (const char* text : {"7", "+6", "-0", "007", "-2147483648", "2147483647", "", "x", " 5", "5 ", "+", "-", "--1",
                           "+-1", "1.0", "0x5", "2147483648", "-2147483649", "99999999999999999999"}) {
    SCOPED_TRACE(std::string("'") + text + "'");
    Written out;
    const std::vector<std::string> specs{std::string("commandlinetest:") + text};
    try {
      const int expected = boost::lexical_cast<int>(std::string(text));
      applyLogSpecs(specs, out.stream());
      EXPECT_EQ(out.text(), "Setting log commandlinetest to level " + std::to_string(expected) + "\n");
    } catch (const boost::bad_lexical_cast&) {
      EXPECT_THROW(applyLogSpecs(specs, out.stream()), boost::bad_lexical_cast);
    }
  }
  log::setLevel("commandlinetest", 0);
  log::setGlobalLevel(log::Notice);
}

}  // namespace
}  // namespace ferrule
}  // namespace quorvel
