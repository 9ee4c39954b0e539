#pragma once

#include <chrono>
#include <cstdint>
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
  // The video download over SCTP, once the pair is up.
  std::string query;              // non-empty: download "/video.vdo?" + query
  std::string output = "-";       // "-": standard output; with several connections PATH.1, PATH.2, ...
  unsigned connections = 1;       // SCTP connections at once on the one pair
  std::uint64_t rate = 0;         // bytes per second read at most (0: as fast as they come)
  std::uint64_t resendQueryAt = 0;  // send the query again after this many body bytes (0: never)
  unsigned garbage = 0;           // datagrams of garbage to send on the pair once the video flows
  std::string serveFile;          // with --answer: answer every query with this file's bytes
  bool verbose = false;
};

// Returns -1 when the tool should run, otherwise the exit status (0 after
// --help, ExitUsage after an error, with the message on `err`).
int parseOptions(int argc, char** argv, Options& options, std::ostream& out, std::ostream& err);

void printUsage(std::ostream& out);

}  // namespace p2pclient
}  // namespace quorvel
