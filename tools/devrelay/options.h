#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace quorvel {
namespace devrelay {

using Seconds = std::chrono::duration<double>;

inline std::chrono::steady_clock::duration toDuration(Seconds seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(seconds);
}

struct Endpoint {
  std::string address;  // numeric IPv4 or IPv6
  std::uint16_t port = 0;
};

struct Settings {
  std::string certificateFile;
  std::string keyFile;
  Endpoint deviceTls{"127.0.0.1", 8443};
  Endpoint devicePlain{"127.0.0.1", 8080};
  Endpoint outside{"127.0.0.1", 8000};
  Seconds pollTimeout{20};
  Seconds answerTimeout{30};
  Seconds idleTimeout{60};
  std::size_t maxQueue = 256;
  std::string replyHost;  // empty: the host name the device used
  int logLevel = 5;
};

// Process exit status, or -1 to go on and run.
int parseOptions(int argc, char** argv, Settings& settings, std::ostream& out, std::ostream& err);

void printUsage(std::ostream& out);

}  // namespace devrelay
}  // namespace quorvel
