// ferrule-p2pclient: the remote client's side of a peer-to-peer path to a
// ferrule device. See printUsage in options.cc.
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <glib.h>

#include "tools/p2pclient/datagram_exchange.h"
#include "tools/p2pclient/description.h"
#include "tools/p2pclient/device_url.h"
#include "tools/p2pclient/exit_status.h"
#include "tools/p2pclient/ice_agent.h"
#include "tools/p2pclient/options.h"
#include "tools/p2pclient/progress_meter.h"
#include "tools/p2pclient/read_budget.h"
#include "tools/p2pclient/sctp_stack.h"
#include "tools/p2pclient/session_post.h"
#include "tools/p2pclient/video_download.h"
#include "tools/p2pclient/video_server.h"

namespace {

using namespace quorvel::p2pclient;
using Clock = std::chrono::steady_clock;

// A failed step: what to say and which status to exit with.
struct StepFailure {
  int status;
  std::string text;
};

long long millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string seconds(std::chrono::milliseconds duration) {
  std::ostringstream text;
  text << duration.count() / 1000.0 << " s";
  return text.str();
}

// libnice wants the STUN server as a numeric address.
std::string resolveStunServer(const Options& options) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(options.stunHost.c_str(), options.stunPort.c_str(), &hints, &found);
  if (error != 0) {
    throw StepFailure{ExitLocalFailure, "cannot resolve the STUN server " + options.stunHost + ": " + gai_strerror(error)};
  }
  char host[NI_MAXHOST] = {};
  const int printed = getnameinfo(found->ai_addr, found->ai_addrlen, host, sizeof host, nullptr, 0, NI_NUMERICHOST);
  freeaddrinfo(found);
  if (printed != 0) throw StepFailure{ExitLocalFailure, "cannot use the STUN server " + options.stunHost};
  return host;
}

std::string firstLine(const std::string& text) {
  const std::string line = text.substr(0, text.find_first_of("\r\n"));
  return line.size() > 200 ? line.substr(0, 200) + "..." : line;
}

// The device's description, through the relay: POST, 201, a usable text.
Description askDevice(const DeviceUrl& url, const std::string& offer, const Options& options) {
  const SessionAnswer answer = postSession(url, offer, options.relayTimeout);
  if (answer.status != 201) {
    std::string text = "the device refused the session: " + std::to_string(answer.status) + " " + answer.reason;
    if (!answer.body.empty()) text += " (" + firstLine(answer.body) + ")";
    throw StepFailure{ExitDeviceRefused, text};
  }
  Description device;
  std::string error;
  if (!parseDescription(answer.body, device, error)) {
    throw StepFailure{ExitDeviceRefused, "the device's answer is not a session description: " + error};
  }
  return device;
}

// Standing in for the device: the client's description comes on standard
// input, ours goes to standard output, ended by an empty line.
Description readClient() {
  const std::string text{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  Description client;
  std::string error;
  if (!parseDescription(text, client, error)) {
    throw StepFailure{ExitLocalFailure, "standard input is not a session description: " + error};
  }
  return client;
}

std::string endText(const PairEnd& end) { return end.address; }

// Where the body of connection `index` (from 1) goes.
std::string outputName(const Options& options, unsigned index) {
  if (options.output == "-") return "standard output";
  return options.connections == 1 ? options.output : options.output + "." + std::to_string(index);
}

class OutputFiles {
 public:
  explicit OutputFiles(const Options& options) {
    for (unsigned index = 1; index <= options.connections; ++index) {
      const std::string name = outputName(options, index);
      std::FILE* file = options.output == "-" ? stdout : std::fopen(name.c_str(), "wb");
      if (file == nullptr) throw StepFailure{ExitLocalFailure, "cannot write " + name + ": " + std::strerror(errno)};
      files_.push_back(file);
    }
  }
  ~OutputFiles() {
    for (std::FILE* file : files_) {
      if (file != stdout) std::fclose(file);
    }
  }
  std::FILE* operator[](unsigned index) const { return files_[index]; }

 private:
  std::vector<std::FILE*> files_;
};

// Lets closing handshakes finish so the device frees its side at once;
// bounded, since the process ends anyway.
void closeStack(IceAgent& agent, SctpStack& stack) {
  agent.runUntil([&stack] { return stack.finished(); }, std::chrono::milliseconds(2000));
}

// Bytes the device must survive on an established pair: random lengths and
// contents, and SCTP packets between the association's ports whose CRC32c
// cannot match.
void sendGarbage(DatagramPath& path, unsigned count) {
  std::srand(static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
  for (unsigned index = 0; index < count; ++index) {
    std::vector<std::uint8_t> datagram(1 + std::rand() % 1400);
    for (auto& byte : datagram) byte = static_cast<std::uint8_t>(std::rand());
    if (index % 2 == 1 && datagram.size() >= 32) {
      const std::uint16_t port = VideoDownload::DevicePort;
      datagram[0] = datagram[2] = static_cast<std::uint8_t>(port >> 8);
      datagram[1] = datagram[3] = static_cast<std::uint8_t>(port & 0xff);
      datagram[12] = 0;  // a DATA chunk
      const std::size_t chunk = datagram.size() - 12;
      datagram[14] = static_cast<std::uint8_t>(chunk >> 8);
      datagram[15] = static_cast<std::uint8_t>(chunk & 0xff);
    }
    path.send(datagram.data(), datagram.size());
  }
}

// The video over SCTP on the pair: one association per connection, all at
// once; returns the exit status of the first that failed.
int download(IceAgent& agent, GMainContext* context, const Options& options, std::ostream& report) {
  OutputFiles files(options);
  SctpStack stack(context, agent);
  ReadBudget budget(options.rate);
  std::vector<std::unique_ptr<VideoDownload>> downloads;
  for (unsigned index = 0; index < options.connections; ++index) {
    VideoDownload::Settings settings;
    settings.query = options.query;
    settings.localPort = static_cast<std::uint16_t>(VideoDownload::DevicePort + index);
    settings.output = files[index];
    settings.outputName = outputName(options, index + 1);
    settings.resendQueryAt = options.resendQueryAt;
    settings.connectLimit = settings.stallLimit = options.iceTimeout;
    downloads.push_back(std::make_unique<VideoDownload>(stack, budget, settings));
  }
  ProgressMeter meter(isatty(STDERR_FILENO) == 1);
  const auto allDone = [&downloads] {
    for (const auto& download : downloads) {
      if (!download->done()) return false;
    }
    return true;
  };
  bool garbageSent = options.garbage == 0;
  stack.setActivity([&] {
    std::uint64_t bytes = 0;
    for (auto& download : downloads) {
      download->service();
      bytes += download->bytes();
    }
    meter.update(bytes);
    if (!garbageSent && bytes > 0) {
      garbageSent = true;
      sendGarbage(agent, options.garbage);
    }
  });
  for (auto& download : downloads) download->start();
  // Each download watches its own limits (association, stalls), so the
  // whole may take as long as the video keeps coming.
  agent.runUntil(allDone, std::chrono::hours(24 * 365));
  meter.finish();
  stack.setActivity(nullptr);

  int status = ExitSuccess;
  for (const auto& download : downloads) {
    const long long ms = download->totalTime().count();
    const unsigned long long rate = ms > 0 ? download->bytes() * 1000 / ms : 0;
    report << "download port=" << download->localPort() << " bytes=" << download->bytes()
           << " connect-ms=" << download->connectTime().count() << " first-byte-ms=" << download->firstByteTime().count()
           << " ms=" << ms << " bytes-per-s=" << rate
           << " end=" << (download->state() == VideoDownload::State::Complete ? "complete" : "failed") << std::endl;
    if (download->state() == VideoDownload::State::Failed) {
      std::cerr << "ferrule-p2pclient: " << download->failure() << "\n";
      if (status == ExitSuccess) status = download->failureStatus();
    }
  }
  downloads.clear();
  closeStack(agent, stack);
  return status;
}

// Standing in for the device's video service until the hold time is over.
void serve(IceAgent& agent, SctpStack& stack, const Options& options) {
  VideoServer server(stack, options.serveFile, [](const std::string& line) { std::cout << line << std::endl; });
  server.start();
  stack.setActivity([&server] { server.service(); });
  agent.runUntil([] { return false; }, options.hold);
  stack.setActivity(nullptr);
}

int run(const Options& options) {
  DeviceUrl url;
  std::string error;
  if (!options.standIn && !parseDeviceUrl(options.deviceUrl, url, error)) {
    std::cerr << "ferrule-p2pclient: " << error << "\n";
    return ExitUsage;
  }
  IceAgent::Settings settings;
  settings.controlling = options.standIn;
  settings.localAddresses = options.localAddresses;
  if (!options.stunHost.empty()) {
    settings.stunAddress = resolveStunServer(options);
    settings.stunPort = static_cast<std::uint16_t>(std::stoul(options.stunPort));
  }

  std::unique_ptr<GMainContext, void (*)(GMainContext*)> context(g_main_context_new(), &g_main_context_unref);
  IceAgent agent(context.get(), settings);
  auto verbose = [&options](const std::string& text) {
    if (options.verbose) std::cerr << "ferrule-p2pclient: " << text << std::endl;
  };
  agent.setTrace(verbose);
  // Ready before the checks: the other side may send as soon as it sees
  // the pair, before this side has noticed.
  DatagramExchange exchange(agent, options.datagrams);

  Description remote;
  const auto askStart = Clock::now();
  if (options.standIn) remote = readClient();
  if (!agent.gather(options.gatherTimeout)) {
    verbose("gathering did not end within " + seconds(options.gatherTimeout) + "; going on with what was found");
  }
  const std::string offer = printDescription(agent.localDescription());
  verbose("this side's description:\n" + offer);
  if (options.standIn) {
    std::cout << offer << std::endl;  // the empty line ends it
  } else {
    remote = askDevice(url, offer, options);
    verbose("the device's description:\n" + printDescription(remote));
  }
  const long long answerMs = millisecondsSince(askStart);

  // The stand-in's stack takes the client's first packets, which may come
  // before this side has seen the pair selected.
  std::unique_ptr<SctpStack> serving;
  if (!options.serveFile.empty()) serving = std::make_unique<SctpStack>(context.get(), agent);

  const auto connectStart = Clock::now();
  agent.setRemote(remote);
  switch (agent.connect(options.iceTimeout)) {
    case IceAgent::Outcome::Connected:
      break;
    case IceAgent::Outcome::Failed:
      throw StepFailure{ExitIceFailure, "ICE failed: no candidate pair reached the device"};
    case IceAgent::Outcome::TimedOut:
      throw StepFailure{ExitIceFailure, "ICE did not complete within " + seconds(options.iceTimeout)};
  }
  const long long connectMs = millisecondsSince(connectStart);
  const SelectedPair pair = agent.selectedPair();
  // With the video on standard output, the report lines go beside it.
  std::ostream& report = !options.query.empty() && options.output == "-" ? std::cerr : std::cout;
  report << "selected-pair local=" << endText(pair.local) << " local-type=" << pair.local.type
            << " local-base=" << pair.local.base << " remote=" << endText(pair.remote)
            << " remote-type=" << pair.remote.type << "\n"
            << "timing answer-ms=" << answerMs << " connect-ms=" << connectMs << std::endl;

  if (!options.query.empty()) return download(agent, context.get(), options, report);
  if (serving) {
    serve(agent, *serving, options);
    closeStack(agent, *serving);
    return ExitSuccess;
  }

  const auto connected = Clock::now();
  if (!exchange.start()) verbose("the path refused some test datagrams");
  bool met = agent.runUntil([&exchange] { return exchange.expectationMet(); }, options.iceTimeout);
  const auto held = Clock::now() - connected;
  if (held < options.hold) {
    agent.runUntil([] { return false; }, std::chrono::duration_cast<std::chrono::milliseconds>(options.hold - held));
  }
  const auto& datagrams = options.datagrams;
  if (datagrams.send > 0 || datagrams.expect > 0 || datagrams.echo) {
    std::cout << "datagrams sent=" << exchange.sent() << " received=" << exchange.received() << std::endl;
  }
  if (!met) {
    std::cerr << "ferrule-p2pclient: " << exchange.received() << " of " << datagrams.expect
              << " expected datagrams arrived within " << seconds(options.iceTimeout) << "\n";
    return ExitDatagramFailure;
  }
  return ExitSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const int status = parseOptions(argc, argv, options, std::cout, std::cerr);
  if (status >= 0) return status;
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(options);
  } catch (const StepFailure& failure) {
    std::cerr << "ferrule-p2pclient: " << failure.text << "\n";
    return failure.status;
  } catch (const RelayError& error) {
    std::cerr << "ferrule-p2pclient: " << error.what() << "\n";
    return ExitRelayFailure;
  } catch (const IceError& error) {
    std::cerr << "ferrule-p2pclient: " << error.what() << "\n";
    return ExitLocalFailure;
  } catch (const std::exception& error) {
    std::cerr << "ferrule-p2pclient: " << error.what() << "\n";
    return ExitLocalFailure;
  }
}
