#include "ice/ice_session_manager.h"

#include "ice/net_session.h"

namespace quorvel {
namespace ice {
namespace {

class NetSessionFactory : public SessionFactory {
 public:
  explicit NetSessionFactory(NetSession::Dependencies deps) : deps_(std::move(deps)) {}
  SessionPtr createSession() override { return std::make_shared<NetSession>(deps_); }

 private:
  NetSession::Dependencies deps_;
};

}  // namespace

IceSessionManager::IceSessionManager(std::shared_ptr<Reactor> reactor,
                                     std::shared_ptr<AsyncSocketFactory> socketFactory,
                                     std::shared_ptr<stun::StunAgent> agent,
                                     std::shared_ptr<LocalNetworkInfo> networkInfo,
                                     std::shared_ptr<NameResolver> resolver, std::shared_ptr<RandomSource> random,
                                     std::string stunServer)
    : factory_(std::make_shared<NetSessionFactory>(NetSession::Dependencies{
          std::move(reactor), std::move(socketFactory), std::move(agent), std::move(networkInfo),
          std::move(resolver), std::move(random), std::move(stunServer)})) {}

IceSessionManager::IceSessionManager(std::shared_ptr<SessionFactory> factory) : factory_(std::move(factory)) {}

SessionPtr IceSessionManager::createSession(const SessionDescription& remote) {
  const SessionPtr session = factory_->createSession();
  session->setRemoteDescription(remote);
  return session;
}

}  // namespace ice
}  // namespace quorvel
