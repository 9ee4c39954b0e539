#include "ice/candidate_gathering.h"

#include <vector>

#include "core/log.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

}  // namespace

CandidateGathering::CandidateGathering(const SessionDependencies& dependencies, SessionCandidates& candidates)
    : deps_(dependencies), candidates_(candidates) {}

void CandidateGathering::start(const SessionSocket::Receiver& receiver, const Delegate<void()>& done) {
  std::vector<InterfaceInfo> interfaces;
  try {
    deps_.networkInfo->getInterfaces(interfaces);
  } catch (const NetInfoError& e) {
    QLOG(Log, log::Warning, "Failed to list local interfaces: %s", e.what());
  }
  candidates_.addHosts(bindHostCandidates(*deps_.socketFactory, interfaces, receiver));
  discovery_ = std::make_shared<ReflexiveDiscovery>(deps_.reactor, deps_.agent, deps_.resolver, deps_.random,
                                                    deps_.stunServer);
  discovery_->start(candidates_.hosts(), done);
}

void CandidateGathering::finish() {
  for (const CandidatePtr& candidate : discovery_->candidates()) candidates_.addLocal(candidate);
  QLOG(Log, log::Info, "Finished gathering candidates");
}

void CandidateGathering::cancel() {
  if (discovery_) discovery_->cancel();
}

}  // namespace ice
}  // namespace quorvel
