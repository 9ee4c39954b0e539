// ferrule-p2pclient: the remote client's side of a peer-to-peer path to a
// ferrule device. See printUsage in options.cc.
#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>

#include <glib.h>

#include "tools/p2pclient/datagram_exchange.h"
#include "tools/p2pclient/description.h"
#include "tools/p2pclient/device_url.h"
#include "tools/p2pclient/exit_status.h"
#include "tools/p2pclient/ice_agent.h"
#include "tools/p2pclient/options.h"
#include "tools/p2pclient/sctp_stack.h"
#include "tools/p2pclient/session_post.h"
#include "tools/p2pclient/video_server.h"
#include "tools/p2pclient/video_transfer.h"

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

  // The stand-in's stack and listener take the client's first packets,
  // which may come before this side has seen the pair selected.
  std::unique_ptr<SctpStack> serving;
  std::unique_ptr<VideoServer> server;
  if (!options.serveFile.empty()) {
    serving = std::make_unique<SctpStack>(context.get(), agent);
    server = listenForVideo(*serving, options);
  }

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

  if (!options.query.empty()) return downloadVideo(agent, context.get(), options, report);
  if (serving) {
    serveVideo(agent, *serving, std::move(server), options);
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
