#include "app/command_line.h"

#include <sstream>
#include <vector>

#include <gtest/gtest.h>

namespace quorvel {
namespace ferrule {
namespace {

std::string usage() {
  std::ostringstream out;
  printUsage(out);
  return out.str();
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
  std::ostringstream out, err;
  parsed.status = parseCommandLine(static_cast<int>(args.size()), args.data(), parsed.options, out, err);
  parsed.out = out.str();
  parsed.err = err.str();
  return parsed;
}

TEST(CommandLine, UsageText) {
  EXPECT_EQ(usage(),
            "ferrule [options]\n"
            "\n"
            "Options:\n"
            "  -r <urlbase>       Relay URL base (e.g. \"relay.example.com\", \n"
            "                     \"relay.example.com/devices\")\n"
            "  -s <stunserver>    STUN server hostname\n"
            "  -f <filename>      Registration info filename (default devicereg.info)\n"
            "  -t <targethost>    Target for relayed HTTP requests (default localhost)\n"
            "  -l <logspec>       Log level setting [logname:](1-6). This may be specified\n"
            "                     multiple times to configure different levels for different\n"
            "                     logs.\n"
            "\n");
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

TEST(CommandLine, ErrorsWithBlankLineBeforeUsage) {
  struct Case {
    std::vector<const char*> args;
    const char* message;
  } cases[] = {
      {{}, "Please specify a relay URL base"},
      {{"-r", "relay"}, "Please specify a STUN server name"},
      {{"-r", "", "-s", "stun"}, "Please specify a relay URL base"},
      {{"-rfoo"}, "Unknown argument: -rfoo"},
      {{"-x", "-h"}, "Unknown argument: -x"},
      {{"-ff"}, "Unknown argument: -ff"},
      {{"x"}, "Argument not understood: x"},
      {{"-"}, "Argument not understood: -"},
      {{"-r", "a", "-s", "b", "extra"}, "Argument not understood: extra"},
  };
  for (const Case& c : cases) {
    Parsed p = parse(c.args);
    EXPECT_EQ(p.status, 1) << c.message;
    EXPECT_EQ(p.err, std::string("ferrule: ") + c.message + "\n\n" + usage());
    EXPECT_TRUE(p.out.empty());
  }
}

TEST(CommandLine, MissingValuesRunStraightIntoUsage) {
  struct Case {
    const char* option;
    const char* message;
  } cases[] = {
      {"-f", "-f: Please specify a filename"},
      {"-r", "-r: Please specify a relay URL base"},
      {"-s", "-s: Please specify a STUN server name"},
      {"-t", "-t: Please specify a target name"},
      {"-l", "-l: Please specify a log level specification"},
  };
  for (const Case& c : cases) {
    Parsed p = parse({"-r", "relay", c.option});
    EXPECT_EQ(p.status, 1);
    EXPECT_EQ(p.err, std::string("ferrule: ") + c.message + "\n" + usage());
  }
}

TEST(CommandLine, HelpGoesToStdoutAndStopsParsing) {
  Parsed p = parse({"-h", "-bogus"});
  EXPECT_EQ(p.status, 0);
  EXPECT_EQ(p.out, usage());
  EXPECT_TRUE(p.err.empty());
}

}  // namespace
}  // namespace ferrule
}  // namespace quorvel
