#include <csignal>
#include <cstdio>

#include "app/command_line.h"
#include "app/relay_service.h"

namespace {

// Set before the loop exists too: an interrupt during start-up (a slow
// board, a loaded machine) must still end the program, not be lost.
volatile std::sig_atomic_t interrupted = 0;

// Only stops the loop; main then returns normally with status 0.
void onInterrupt(int) {
  interrupted = 1;
  if (quorvel::ferrule::RelayService* service = quorvel::ferrule::RelayService::instance.get()) {
    service->reactor().stop();
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace quorvel::ferrule;
  std::signal(SIGINT, onInterrupt);

  CommandLine options;
  const int status = parseCommandLine(argc, argv, options, stdout, stderr);
  if (status != ContinueRunning) return status;
  applyLogSpecs(options.logSpecs, stdout);

  auto service = std::make_shared<RelayService>(options.registrationFile, options.targetHost, options.relayUrlBase,
                                                options.stunServer);
  RelayService::instance = service;
  // A stop before the loop runs makes it return at once.
  if (interrupted) service->reactor().stop();
  service->run();
  return 0;
}
