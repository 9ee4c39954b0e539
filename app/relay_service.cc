#include "app/relay_service.h"

namespace quorvel {
namespace ferrule {

std::shared_ptr<RelayService> RelayService::instance;

RelayService::RelayService(const std::string& registrationFile, const std::string& targetHost,
                           const std::string& relayUrlBase, const std::string& stunServer)
    : registrationFile_(registrationFile),
      targetHost_(targetHost),
      relayUrlBase_(relayUrlBase),
      stunServer_(stunServer),
      reactor_(std::make_shared<AsioReactor>()),
      randomSource_(std::make_shared<PseudoRandomSource>(reactor_->timeProvider())) {}

RelayService::~RelayService() = default;

void RelayService::run() { reactor_->run(); }

}  // namespace ferrule
}  // namespace quorvel
