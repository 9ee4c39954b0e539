#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace quorvel {
namespace ferrule {

struct CommandLine {
  std::string registrationFile = "devicereg.info";
  std::string targetHost = "localhost";
  std::string relayUrlBase;
  std::string stunServer;
  std::vector<std::string> logSpecs;
};

// The process should go on to run the daemon.
constexpr int ContinueRunning = -1;

void printUsage(std::ostream& out);

// Reads the arguments left to right. Returns ContinueRunning, or the exit
// status after printing help (0) or an error with the usage text (1).
int parseCommandLine(int argc, const char* const* argv, CommandLine& result, std::ostream& out, std::ostream& err);

// Global threshold 5, one stdout writer, then every "-l" value in order. A
// level that is not an integer throws boost::bad_lexical_cast on purpose:
// nothing catches it and the process ends abnormally.
void applyLogSpecs(const std::vector<std::string>& specs, std::ostream& out);

}  // namespace ferrule
}  // namespace quorvel
