#pragma once

#include <cstdio>
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

// Plain stdio, as the log writer uses: nothing else in the daemon needs
// iostreams, whose locale machinery would add most of a megabyte to a
// static build.
void printUsage(std::FILE* out);

// Reads the arguments left to right. Returns ContinueRunning, or the exit
// status after printing help (0) or an error with the usage text (1).
int parseCommandLine(int argc, const char* const* argv, CommandLine& result, std::FILE* out, std::FILE* err);

// Global threshold 5, one stdout writer, then every "-l" value in order. A
// level that is not an integer throws boost::bad_lexical_cast on purpose:
// nothing catches it and the process ends abnormally.
void applyLogSpecs(const std::vector<std::string>& specs, std::FILE* out);

}  // namespace ferrule
}  // namespace quorvel
