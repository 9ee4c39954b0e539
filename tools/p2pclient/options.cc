#include "tools/p2pclient/options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ostream>

#include "tools/p2pclient/exit_status.h"

namespace quorvel {
namespace p2pclient {

namespace {

bool parseSeconds(const char* text, double low, std::chrono::milliseconds& result) {
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || errno != 0 || !std::isfinite(value) || value < low || value > 86400) return false;
  result = std::chrono::milliseconds(static_cast<long long>(value * 1000));
  return true;
}

bool parseCount(const char* text, unsigned& result) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || value < 0 || value > 100000) return false;
  result = static_cast<unsigned>(value);
  return true;
}

// host, host:port, v6, [v6] or [v6]:port
bool parseServer(const std::string& text, std::string& host, std::string& port) {
  std::string portText;
  if (!text.empty() && text[0] == '[') {
    const auto close = text.find(']');
    if (close == std::string::npos) return false;
    host = text.substr(1, close - 1);
    if (close + 1 < text.size()) {
      if (text[close + 1] != ':') return false;
      portText = text.substr(close + 2);
      if (portText.empty()) return false;
    }
  } else if (text.find(':') != text.rfind(':')) {
    host = text;  // a bare IPv6 address
  } else {
    const auto colon = text.find(':');
    host = text.substr(0, colon);
    if (colon != std::string::npos) {
      portText = text.substr(colon + 1);
      if (portText.empty()) return false;
    }
  }
  if (host.empty()) return false;
  if (!portText.empty()) {
    char* end = nullptr;
    const long value = std::strtol(portText.c_str(), &end, 10);
    if (*end != '\0' || value < 1 || value > 65535) return false;
    port = portText;
  }
  return true;
}

bool isNumericAddress(const std::string& text) {
  unsigned char bytes[16];
  return inet_pton(AF_INET, text.c_str(), bytes) == 1 || inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

// 1500, 64k (KiB), 2M (MiB), as curl's --limit-rate reads them.
bool parseBytes(const char* text, std::uint64_t& result) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (end == text || errno != 0 || *text == '-') return false;
  std::uint64_t unit = 1;
  if (*end == 'k' || *end == 'K') {
    unit = 1024, ++end;
  } else if (*end == 'm' || *end == 'M') {
    unit = 1024 * 1024, ++end;
  } else if (*end == 'g' || *end == 'G') {
    unit = 1024 * 1024 * 1024, ++end;
  }
  if (*end != '\0' || value > (1ULL << 50) / unit) return false;
  result = value * unit;
  return true;
}

int usageError(std::ostream& err, const std::string& text) {
  err << "ferrule-p2pclient: " << text << "\nTry 'ferrule-p2pclient --help'.\n";
  return ExitUsage;
}

}  // namespace

void printUsage(std::ostream& out) {
  out << "Usage: ferrule-p2pclient [options] <device URL>\n"
         "\n"
         "Opens a peer-to-peer UDP path to a ferrule device with ICE. Posts this\n"
         "side's candidates to the device's \"/sg/sessions\" through the relay, hands\n"
         "the device's answer to the ICE agent (libnice, RFC 5245, controlled role,\n"
         "regular nomination) and prints the pair the device nominated.\n"
         "\n"
         "The device URL is the one outside clients use through the relay, in plain\n"
         "HTTP, e.g. http://KEY.relay.example:8000 (the dev relay's outside port).\n"
         "\n"
         "Options:\n"
         "  -s, --stun <host[:port]>   STUN server for this side's server-reflexive\n"
         "                             candidates (needed behind a NAT; port 3478)\n"
         "  -a, --address <ip>         Gather on this local address only (repeatable;\n"
         "                             default: every interface but loopback)\n"
         "  -g, --gather-timeout <s>   Longest wait for gathering (default 5)\n"
         "  -r, --relay-timeout <s>    Longest wait for the device's answer through\n"
         "                             the relay (default 40)\n"
         "  -t, --timeout <s>          Longest wait for ICE after the answer, and for\n"
         "                             --expect's datagrams (default 20)\n"
         "      --send <n>             Once connected, send n test datagrams on the pair\n"
         "      --expect <n>           Once connected, wait for n datagrams on the pair\n"
         "      --echo                 Send every datagram that arrives back\n"
         "      --hold <s>             Keep the path up this long once connected,\n"
         "                             answering checks and keepalives (default 0)\n"
         "      --answer               Stand in for the device (tests, benchmarks): read\n"
         "                             a client's description on standard input, print\n"
         "                             this side's and an empty line, then run the\n"
         "                             checks as the controlling side\n"
         "  -v, --verbose              Progress and both descriptions on standard error\n"
         "  -h, --help                 This text\n"
         "\n"
         "Standard output, one line each, fields separated by spaces:\n"
         "  selected-pair local=ADDR:PORT local-type=TYPE local-base=ADDR:PORT\n"
         "                remote=ADDR:PORT remote-type=TYPE\n"
         "  timing answer-ms=N connect-ms=N   (answer: POST to 201; connect: 201 to\n"
         "                                    the nominated pair selected)\n"
         "  datagrams sent=N received=N       (with --send, --expect or --echo)\n"
         "IPv6 addresses are written [ADDR]:PORT.\n"
         "\n"
         "Exit status: 0 connected (and the datagrams expected arrived), 1 local\n"
         "failure, 2 bad command line, 3 relay unreachable or no answer, 4 the device\n"
         "refused the session (4xx/5xx or an unusable answer), 5 ICE failed or timed\n"
         "out, 6 fewer datagrams arrived than expected.\n";
}

int parseOptions(int argc, char** argv, Options& options, std::ostream& out, std::ostream& err) {
  enum {
    SendOption = 1000,
    ExpectOption,
    EchoOption,
    HoldOption,
    AnswerOption,
    ConnectionsOption,
    RateOption,
    ResendOption,
    GarbageOption,
    ServeOption
  };
  static const option longOptions[] = {
      {"stun", required_argument, nullptr, 's'},
      {"address", required_argument, nullptr, 'a'},
      {"gather-timeout", required_argument, nullptr, 'g'},
      {"relay-timeout", required_argument, nullptr, 'r'},
      {"timeout", required_argument, nullptr, 't'},
      {"send", required_argument, nullptr, SendOption},
      {"expect", required_argument, nullptr, ExpectOption},
      {"echo", no_argument, nullptr, EchoOption},
      {"hold", required_argument, nullptr, HoldOption},
      {"answer", no_argument, nullptr, AnswerOption},
      {"query", required_argument, nullptr, 'q'},
      {"output", required_argument, nullptr, 'o'},
      {"connections", required_argument, nullptr, ConnectionsOption},
      {"rate", required_argument, nullptr, RateOption},
      {"resend-query-at", required_argument, nullptr, ResendOption},
      {"garbage", required_argument, nullptr, GarbageOption},
      {"serve", required_argument, nullptr, ServeOption},
      {"verbose", no_argument, nullptr, 'v'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  optind = 0;  // also resets getopt's state when called again (tests)
  opterr = 0;
  int option;
  while ((option = getopt_long(argc, argv, ":s:a:g:r:t:q:o:vh", longOptions, nullptr)) != -1) {
    const std::string name = optind > 0 && optind <= argc ? argv[optind - 1] : "";
    switch (option) {
      case 's':
        if (!parseServer(optarg, options.stunHost, options.stunPort)) {
          return usageError(err, std::string("bad STUN server '") + optarg + "' (host[:port])");
        }
        break;
      case 'a':
        if (!isNumericAddress(optarg)) return usageError(err, std::string("bad local address '") + optarg + "'");
        options.localAddresses.push_back(optarg);
        break;
      case 'g':
        if (!parseSeconds(optarg, 0.001, options.gatherTimeout)) {
          return usageError(err, std::string("bad gathering time-out '") + optarg + "'");
        }
        break;
      case 'r':
        if (!parseSeconds(optarg, 0.001, options.relayTimeout)) {
          return usageError(err, std::string("bad relay time-out '") + optarg + "'");
        }
        break;
      case 't':
        if (!parseSeconds(optarg, 0.001, options.iceTimeout)) {
          return usageError(err, std::string("bad time-out '") + optarg + "'");
        }
        break;
      case SendOption:
        if (!parseCount(optarg, options.datagrams.send)) {
          return usageError(err, std::string("bad datagram count '") + optarg + "' (0 to 100000)");
        }
        break;
      case ExpectOption:
        if (!parseCount(optarg, options.datagrams.expect)) {
          return usageError(err, std::string("bad datagram count '") + optarg + "' (0 to 100000)");
        }
        break;
      case EchoOption:
        options.datagrams.echo = true;
        break;
      case HoldOption:
        if (!parseSeconds(optarg, 0, options.hold)) return usageError(err, std::string("bad hold time '") + optarg + "'");
        break;
      case AnswerOption:
        options.standIn = true;
        break;
      case 'q':
        options.query = optarg;
        // SCTP has no empty messages, and the device takes one message as
        // the whole query.
        if (options.query.empty()) return usageError(err, "the query must not be empty");
        break;
      case 'o':
        options.output = optarg;
        if (options.output.empty()) return usageError(err, "the output path must not be empty");
        break;
      case ConnectionsOption:
        if (!parseCount(optarg, options.connections) || options.connections < 1 || options.connections > 8) {
          return usageError(err, std::string("bad connection count '") + optarg + "' (1 to 8)");
        }
        break;
      case RateOption:
        if (!parseBytes(optarg, options.rate) || options.rate == 0) {
          return usageError(err, std::string("bad rate '") + optarg + "' (bytes a second, k/M/G suffixes)");
        }
        break;
      case ResendOption:
        if (!parseBytes(optarg, options.resendQueryAt) || options.resendQueryAt == 0) {
          return usageError(err, std::string("bad byte count '") + optarg + "'");
        }
        break;
      case GarbageOption:
        if (!parseCount(optarg, options.garbage)) {
          return usageError(err, std::string("bad datagram count '") + optarg + "' (0 to 100000)");
        }
        break;
      case ServeOption:
        options.serveFile = optarg;
        break;
      case 'v':
        options.verbose = true;
        break;
      case 'h':
        printUsage(out);
        return 0;
      case ':':
        return usageError(err, "option " + name + " needs a value");
      default:
        return usageError(err, "unknown option " + name);
    }
  }
  const int left = argc - optind;
  const bool downloading = !options.query.empty();
  if (options.standIn && downloading) return usageError(err, "--query is for the client, not with --answer");
  if (!options.serveFile.empty() && !options.standIn) return usageError(err, "--serve needs --answer");
  if (!downloading && (options.output != "-" || options.connections != 1 || options.rate != 0 ||
                       options.resendQueryAt != 0 || options.garbage != 0)) {
    return usageError(err, "--output, --connections, --rate, --resend-query-at and --garbage need --query");
  }
  if (options.connections > 1 && options.output == "-") {
    return usageError(err, "--connections above 1 needs --output (one file per connection)");
  }
  if (options.standIn) {
    if (left != 0) return usageError(err, "--answer takes no device URL");
  } else if (left != 1) {
    return usageError(err, left == 0 ? "no device URL given" : "more than one device URL given");
  } else {
    options.deviceUrl = argv[optind];
  }
  return -1;
}

}  // namespace p2pclient
}  // namespace quorvel
