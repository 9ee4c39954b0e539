#include "tools/devrelay/options.h"

#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ostream>

namespace quorvel {
namespace devrelay {

namespace {

bool parseEndpoint(const std::string& text, Endpoint& endpoint) {
  std::string address;
  std::string port;
  if (!text.empty() && text[0] == '[') {
    const auto close = text.find("]:");
    if (close == std::string::npos) return false;
    address = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    address = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  if (address.empty() || port.empty() || port.size() > 5) return false;
  char* end = nullptr;
  const unsigned long value = std::strtoul(port.c_str(), &end, 10);
  if (*end != '\0' || value > 65535) return false;
  endpoint.address = address;
  endpoint.port = static_cast<std::uint16_t>(value);
  return true;
}

bool parseSeconds(const char* text, Seconds& seconds) {
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || errno != 0 || !std::isfinite(value) || value <= 0 || value > 86400) return false;
  seconds = Seconds(value);
  return true;
}

bool parseCount(const char* text, long low, long high, long& result) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || value < low || value > high) return false;
  result = value;
  return true;
}

}  // namespace

void printUsage(std::ostream& out) {
  out << "Usage: ferrule-devrelay -c <cert.pem> -k <key.pem> [options]\n"
         "\n"
         "A local relay service for ferrule devices. Devices register over TLS and\n"
         "long-poll for the HTTP requests that outside clients address to them.\n"
         "\n"
         "Options:\n"
         "  -c, --cert <file>            Certificate chain (PEM) of the device TLS port\n"
         "  -k, --key <file>             Private key (PEM) of that certificate\n"
         "  -d, --device <addr:port>     Device TLS port (default 127.0.0.1:8443)\n"
         "  -p, --device-plain <addr:port>\n"
         "                               Device plain-HTTP port, named in reply URLs\n"
         "                               (default 127.0.0.1:8080)\n"
         "  -o, --outside <addr:port>    Outside clients' port (default 127.0.0.1:8000)\n"
         "  -P, --poll-timeout <s>       Longest relay GET wait before 204 (default 20)\n"
         "  -a, --answer-timeout <s>     Longest wait for a device's answer before 504\n"
         "                               (default 30)\n"
         "  -i, --idle-timeout <s>       Longest stall of any connection (default 60)\n"
         "  -q, --max-queue <n>          Requests queued per device before 503\n"
         "                               (default 256)\n"
         "  -H, --reply-host <name>      Host named in reply URLs (default: the host\n"
         "                               name the device used in its relay GET)\n"
         "  -l, --log-level <1-7>        1 fatal ... 5 info ... 7 spam (default 5)\n"
         "  -h, --help                   Show this text\n"
         "\n"
         "Port 0 picks a free port; the log names every port actually used.\n"
         "Times are seconds and may have a fraction (e.g. 0.5).\n"
         "\n"
         "Device protocol, on the TLS and the plain device port alike (a device\n"
         "registers at https://KEY.<relay host>[:port]/rhttp/register; a path before\n"
         "/rhttp/ in its request is kept in every link):\n"
         "  POST /rhttp/register, body \"drk=KEY\"\n"
         "      -> 201, Link: </rhttp/relay/KEY/SESSION>; rel=\"first\"\n"
         "  GET /rhttp/relay/KEY/SESSION, waiting up to the poll timeout\n"
         "      -> 204, Link: </rhttp/relay/KEY/SESSION>; rel=\"next\"\n"
         "      -> 200, Content-Type: message/http, body: one outside request (head\n"
         "         and body), Link: </rhttp/relay/KEY/SESSION>; rel=\"next\" and\n"
         "         Link: <http://HOST:PLAINPORT/rhttp/reply/ID>; rel=\"reply\"\n"
         "      -> 404 for an unknown or superseded session: register again\n"
         "  POST /rhttp/reply/ID, Content-Type: message/http, body: the response\n"
         "      (head and body), streamed to the outside client as it comes -> 200\n"
         "\n"
         "Outside clients: a request whose Host is \"KEY.<any domain>\" (the first\n"
         "label names the device key, case-insensitively) goes to device KEY, e.g.\n"
         "  curl --resolve 0123abcd.relay.test:8000:127.0.0.1 http://0123abcd.relay.test:8000/\n"
         "No such device: 502. No answer within the answer timeout: 504.\n"
         "\n"
         "Stops cleanly on SIGINT and SIGTERM.\n";
}

int parseOptions(int argc, char** argv, Settings& settings, std::ostream& out, std::ostream& err) {
  static const option longOptions[] = {
      {"cert", required_argument, nullptr, 'c'},         {"key", required_argument, nullptr, 'k'},
      {"device", required_argument, nullptr, 'd'},       {"device-plain", required_argument, nullptr, 'p'},
      {"outside", required_argument, nullptr, 'o'},      {"poll-timeout", required_argument, nullptr, 'P'},
      {"answer-timeout", required_argument, nullptr, 'a'}, {"idle-timeout", required_argument, nullptr, 'i'},
      {"max-queue", required_argument, nullptr, 'q'},    {"reply-host", required_argument, nullptr, 'H'},
      {"log-level", required_argument, nullptr, 'l'},    {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0}};

  auto fail = [&](const std::string& message) {
    err << "ferrule-devrelay: " << message << "\n\n";
    printUsage(err);
    return 1;
  };

  opterr = 0;
  optind = 1;
  for (;;) {
    const int option = getopt_long(argc, argv, ":c:k:d:p:o:P:a:i:q:H:l:h", longOptions, nullptr);
    if (option == -1) break;
    const std::string value = optarg ? optarg : "";
    long count = 0;
    switch (option) {
      case 'c': settings.certificateFile = value; break;
      case 'k': settings.keyFile = value; break;
      case 'd':
        if (!parseEndpoint(value, settings.deviceTls)) return fail("Bad address for --device: " + value);
        break;
      case 'p':
        if (!parseEndpoint(value, settings.devicePlain)) return fail("Bad address for --device-plain: " + value);
        break;
      case 'o':
        if (!parseEndpoint(value, settings.outside)) return fail("Bad address for --outside: " + value);
        break;
      case 'P':
        if (!parseSeconds(optarg, settings.pollTimeout)) return fail("Bad time for --poll-timeout: " + value);
        break;
      case 'a':
        if (!parseSeconds(optarg, settings.answerTimeout)) return fail("Bad time for --answer-timeout: " + value);
        break;
      case 'i':
        if (!parseSeconds(optarg, settings.idleTimeout)) return fail("Bad time for --idle-timeout: " + value);
        break;
      case 'q':
        if (!parseCount(optarg, 1, 100000, count)) return fail("Bad count for --max-queue: " + value);
        settings.maxQueue = static_cast<std::size_t>(count);
        break;
      case 'H':
        if (value.empty()) return fail("Empty --reply-host");
        settings.replyHost = value;
        break;
      case 'l':
        if (!parseCount(optarg, 1, 7, count)) return fail("Bad log level: " + value);
        settings.logLevel = static_cast<int>(count);
        break;
      case 'h':
        printUsage(out);
        return 0;
      case ':':
        return fail(std::string("Missing value for ") + argv[optind - 1]);
      default:
        return fail(std::string("Unknown option: ") + argv[optind - 1]);
    }
  }
  if (optind < argc) return fail(std::string("Argument not understood: ") + argv[optind]);
  if (settings.certificateFile.empty()) return fail("Please give the certificate file (-c)");
  if (settings.keyFile.empty()) return fail("Please give the private key file (-k)");
  return -1;
}

}  // namespace devrelay
}  // namespace quorvel
