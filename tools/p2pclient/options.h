#pragma once

#include <chrono>
#include <iosfwd>
#include <string>
#include <vector>

#include "tools/p2pclient/datagram_exchange.h"

namespace quorvel {
namespace p2pclient {

struct Options {
  std::string deviceUrl;                   // unless standing in for the device
  std::string stunHost;                    // empty: no server-reflexive candidates
  std::string stunPort = "3478";
  std::vector<std::string> localAddresses; // empty: every interface
  std::chrono::milliseconds gatherTimeout{5000};
  std::chrono::milliseconds relayTimeout{40000};
  std::chrono::milliseconds iceTimeout{20000};
  std::chrono::milliseconds hold{0};
  DatagramExchange::Settings datagrams;
  bool standIn = false;  // --answer: the device's side, for tests and benchmarks
  bool verbose = false;
};

// Returns -1 when the tool should run, otherwise the exit status (0 after
// --help, ExitUsage after an error, with the message on `err`).
int parseOptions(int argc, char** argv, Options& options, std::ostream& out, std::ostream& err);

void printUsage(std::ostream& out);

}  // namespace p2pclient
}  // namespace quorvel
