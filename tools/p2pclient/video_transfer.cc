#include "tools/p2pclient/video_transfer.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/p2pclient/exit_status.h"
#include "tools/p2pclient/ice_agent.h"
#include "tools/p2pclient/options.h"
#include "tools/p2pclient/progress_meter.h"
#include "tools/p2pclient/read_budget.h"
#include "tools/p2pclient/sctp_stack.h"
#include "tools/p2pclient/video_download.h"
#include "tools/p2pclient/video_server.h"

namespace quorvel {
namespace p2pclient {

namespace {

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
      if (file == nullptr) throw std::runtime_error("cannot write " + name + ": " + std::strerror(errno));
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

}  // namespace

int downloadVideo(IceAgent& agent, GMainContext* context, const Options& options, std::ostream& report) {
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

std::unique_ptr<VideoServer> listenForVideo(SctpStack& stack, const Options& options) {
  auto server = std::make_unique<VideoServer>(stack, options.serveFile,
                                              [](const std::string& line) { std::cout << line << std::endl; });
  server->start();
  VideoServer* serving = server.get();
  stack.setActivity([serving] { serving->service(); });
  return server;
}

void serveVideo(IceAgent& agent, SctpStack& stack, std::unique_ptr<VideoServer> server, const Options& options) {
  agent.runUntil([] { return false; }, options.hold);
  stack.setActivity(nullptr);
  server.reset();
  closeStack(agent, stack);
}

}  // namespace p2pclient
}  // namespace quorvel
