#pragma once

#include <memory>
#include <string>

#include "core/asio_reactor.h"
#include "core/lifetime.h"
#include "core/random_source.h"

namespace quorvel {
namespace ferrule {

// Owns every long-lived component of the daemon and runs the event loop.
class RelayService {
 public:
  RelayService(const std::string& registrationFile, const std::string& targetHost, const std::string& relayUrlBase,
               const std::string& stunServer);
  ~RelayService();
  RelayService(const RelayService&) = delete;
  RelayService& operator=(const RelayService&) = delete;

  // Blocks on the calling thread until the reactor is stopped.
  void run();

  AsioReactor& reactor() { return *reactor_; }

  // The one service of the process, reachable from the SIGINT handler. Set
  // once after construction; dropped by its exit-time destructor.
  static std::shared_ptr<RelayService> instance;

 private:
  const std::string registrationFile_;
  const std::string targetHost_;
  const std::string relayUrlBase_;
  const std::string stunServer_;

  // Built in this order; later components are handed the earlier ones.
  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<RandomSource> randomSource_;

  LifetimeToken lifetime_ = makeLifetimeToken();
};

}  // namespace ferrule
}  // namespace quorvel
