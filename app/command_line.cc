#include "app/command_line.h"

#include <limits>
#include <memory>
#include <typeinfo>

#include <boost/lexical_cast/bad_lexical_cast.hpp>

#include "core/log.h"
#include "core/stdout_writer.h"

namespace quorvel {
namespace ferrule {
namespace {

constexpr const char* ProgramName = "ferrule";
constexpr const char* DefaultRegistrationFile = "devicereg.info";

struct ValueOption {
  const char* name;
  const char* missingValue;
  std::string CommandLine::*setting;  // null for "-l", which appends
};

const ValueOption ValueOptions[] = {
    {"f", "-f: Please specify a filename", &CommandLine::registrationFile},
    {"r", "-r: Please specify a relay URL base", &CommandLine::relayUrlBase},
    {"s", "-s: Please specify a STUN server name", &CommandLine::stunServer},
    {"t", "-t: Please specify a target name", &CommandLine::targetHost},
    {"l", "-l: Please specify a log level specification", nullptr},
};

// Errors about the arguments as a whole are set off from the usage by an
// empty line; a missing option value runs straight into it.
int fail(std::FILE* err, const std::string& message, bool blankLine) {
  std::fprintf(err, "%s: %s\n%s", ProgramName, message.c_str(), blankLine ? "\n" : "");
  printUsage(err);
  return 1;
}

// What boost::lexical_cast<int> accepts, and its exception otherwise: an
// optional sign and decimal digits, nothing else, within int's range.
int parseLevel(const std::string& text) {
  std::size_t i = 0;
  const bool negative = !text.empty() && text[0] == '-';
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) ++i;
  const unsigned long long limit = negative ? 0ULL - std::numeric_limits<int>::min()
                                            : static_cast<unsigned long long>(std::numeric_limits<int>::max());
  unsigned long long value = 0;
  bool valid = i < text.size();
  for (; valid && i < text.size(); ++i) {
    valid = text[i] >= '0' && text[i] <= '9' && (value = value * 10 + (text[i] - '0')) <= limit;
  }
  if (!valid) boost::conversion::detail::throw_bad_cast<std::string, int>();
  return negative ? static_cast<int>(0ULL - value) : static_cast<int>(value);
}

}  // namespace

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "%s [options]\n"
               "\n"
               "Options:\n"
               "  -r <urlbase>       Relay URL base (e.g. \"relay.example.com\", \n"
               "                     \"relay.example.com/devices\")\n"
               "  -s <stunserver>    STUN server hostname\n"
               "  -f <filename>      Registration info filename (default %s)\n"
               "  -t <targethost>    Target for relayed HTTP requests (default localhost)\n"
               "  -l <logspec>       Log level setting [logname:](1-6). This may be specified\n"
               "                     multiple times to configure different levels for different\n"
               "                     logs.\n"
               "\n",
               ProgramName, DefaultRegistrationFile);
}

int parseCommandLine(int argc, const char* const* argv, CommandLine& result, std::FILE* out, std::FILE* err) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.size() < 2 || argument[0] != '-') {
      return fail(err, "Argument not understood: " + argument, true);
    }
    const std::string name = argument.substr(1);
    if (name == "h") {
      printUsage(out);
      return 0;
    }
    const ValueOption* option = nullptr;
    for (const ValueOption& candidate : ValueOptions) {
      if (name == candidate.name) option = &candidate;
    }
    if (!option) return fail(err, "Unknown argument: " + argument, true);
    if (i + 1 >= argc) return fail(err, option->missingValue, false);
    const char* value = argv[++i];
    if (option->setting) {
      result.*(option->setting) = value;
    } else {
      result.logSpecs.push_back(value);
    }
  }
  if (result.relayUrlBase.empty()) return fail(err, "Please specify a relay URL base", true);
  if (result.stunServer.empty()) return fail(err, "Please specify a STUN server name", true);
  return ContinueRunning;
}

void applyLogSpecs(const std::vector<std::string>& specs, std::FILE* out) {
  log::setGlobalLevel(log::Info);
  log::addWriter(std::make_shared<log::StdoutWriter>());
  for (const std::string& setting : specs) {
    const std::size_t colon = setting.find(':');
    const std::string name = colon == std::string::npos ? std::string() : setting.substr(0, colon);
    const std::string levelText = colon == std::string::npos ? setting : setting.substr(colon + 1);
    const int level = parseLevel(levelText);
    if (name.empty()) {
      std::fprintf(out, "Setting global log level to %d\n", level);
      log::setGlobalLevel(level);
    } else {
      std::fprintf(out, "Setting log %s to level %d\n", name.c_str(), level);
      log::setLevel(name, level);
    }
    std::fflush(out);
  }
}

}  // namespace ferrule
}  // namespace quorvel
