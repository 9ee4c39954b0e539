#include "app/command_line.h"

#include <memory>
#include <ostream>

#include <boost/lexical_cast.hpp>

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
int fail(std::ostream& err, const std::string& message, bool blankLine) {
  err << ProgramName << ": " << message << "\n";
  if (blankLine) err << "\n";
  printUsage(err);
  return 1;
}

}  // namespace

void printUsage(std::ostream& out) {
  out << ProgramName << " [options]\n"
      << "\n"
      << "Options:\n"
      << "  -r <urlbase>       Relay URL base (e.g. \"relay.example.com\", \n"
      << "                     \"relay.example.com/devices\")\n"
      << "  -s <stunserver>    STUN server hostname\n"
      << "  -f <filename>      Registration info filename (default " << DefaultRegistrationFile << ")\n"
      << "  -t <targethost>    Target for relayed HTTP requests (default localhost)\n"
      << "  -l <logspec>       Log level setting [logname:](1-6). This may be specified\n"
      << "                     multiple times to configure different levels for different\n"
      << "                     logs.\n"
      << "\n";
}

int parseCommandLine(int argc, const char* const* argv, CommandLine& result, std::ostream& out, std::ostream& err) {
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

void applyLogSpecs(const std::vector<std::string>& specs, std::ostream& out) {
  log::setGlobalLevel(log::Info);
  log::addWriter(std::make_shared<log::StdoutWriter>());
  for (const std::string& setting : specs) {
    const std::size_t colon = setting.find(':');
    const std::string name = colon == std::string::npos ? std::string() : setting.substr(0, colon);
    const std::string levelText = colon == std::string::npos ? setting : setting.substr(colon + 1);
    const int level = boost::lexical_cast<int>(levelText);
    if (name.empty()) {
      out << "Setting global log level to " << level << std::endl;
      log::setGlobalLevel(level);
    } else {
      out << "Setting log " << name << " to level " << level << std::endl;
      log::setLevel(name, level);
    }
  }
}

}  // namespace ferrule
}  // namespace quorvel
