#include "app/relay_service.h"

#include <exception>

#include "core/log.h"
#include "core/release_later.h"
#include "ice/session_timing.h"
#include "http/net_http_client.h"
#include "net/asio_socket_factory.h"
#include "net/asio_ssl_socket_factory.h"
#include "sctp/sctp_ice_session_link.h"

namespace quorvel {
namespace ferrule {
namespace {

const log::Log Log("ferrule");

}  // namespace

std::shared_ptr<RelayService> RelayService::instance;

std::string relayRegistrationUrl(const std::string& key, const std::string& relayUrlBase) {
  std::string url = "https://" + key + "." + relayUrlBase;
  if (relayUrlBase.empty() || relayUrlBase.back() != '/') url += "/";
  return url + "rhttp/register";
}

RelayService::RelayService(const std::string& registrationFile, const std::string& targetHost,
                           const std::string& relayUrlBase, const std::string& stunServer)
    : registrationFile_(registrationFile),
      targetHost_(targetHost),
      relayUrlBase_(relayUrlBase),
      stunServer_(stunServer),
      reactor_(std::make_shared<AsioReactor>()),
      socketFactory_(std::make_shared<AsioSocketFactory>(reactor_)),
      sslSocketFactory_(std::make_shared<AsioSslSocketFactory>(reactor_, false)),
      resolver_(std::make_shared<NetNameResolver>(reactor_)),
      bufferPool_(std::make_shared<BufferPool>(512, 0, 0)),
      sctpService_(std::make_shared<SctpUdpService>(reactor_)),
      httpClient_(std::make_shared<NetHttpClient>(reactor_, bufferPool_, socketFactory_, sslSocketFactory_, resolver_)),
      randomSource_(std::make_shared<PseudoRandomSource>(reactor_->timeProvider())),
      stunAgent_(std::make_shared<stun::NetStunAgent>(reactor_, bufferPool_, ice::AgentSendInterval)),
      localNetworkInfo_(std::make_shared<LinuxLocalNetworkInfo>()),
      sessionManager_(std::make_shared<ice::IceSessionManager>(reactor_, socketFactory_, stunAgent_,
                                                               localNetworkInfo_, resolver_, randomSource_,
                                                               stunServer_)),
      handlers_(std::make_shared<WebHandlerContainer>()),
      connectHandler_(std::make_shared<ConnectRequestHandler>(reactor_, sessionManager_)) {
  connectHandler_->setSessionEstablishedCallback([this](const ice::SessionPtr& session) { onNewSession(session); });
  connectHandler_->setCleanupDelay(Duration::milliseconds(100));
  handlers_->addHandler(connectHandler_);
  forwarder_ = std::make_shared<HttpForwarder>(reactor_, httpClient_, targetHost_);
  handlers_->addHandler(forwarder_);
  registrationWatch_ = std::make_unique<RegistrationFileWatch>(
      reactor_, registrationFile_, [this](const std::string& key) { startRelay(key); });
}

// Tasks still queued in the reactor may hold pooled buffers, so the reactor
// goes before the pool: everything else first, in reverse order of building.
RelayService::~RelayService() {
  clientConnections_.clear();
  relayClient_.reset();
  registrationWatch_.reset();
  forwarder_.reset();
  connectHandler_.reset();
  handlers_.reset();
  sessionManager_.reset();
  localNetworkInfo_.reset();
  stunAgent_.reset();
  randomSource_.reset();
  httpClient_.reset();
  sctpService_.reset();
  resolver_.reset();
  sslSocketFactory_.reset();
  socketFactory_.reset();
  reactor_.reset();
}

void RelayService::startRelay(const std::string& key) {
  QLOG(Log, log::Notice, "Starting HTTP relay with device key %s", key);
  relayClient_ = std::make_shared<ReverseHttpClient>(reactor_, bufferPool_, httpClient_,
                                                     relayRegistrationUrl(key, relayUrlBase_), key);
  relayClient_->setRequestHandler(handlers_);
  relayClient_->start();
}

void RelayService::onNewSession(const ice::SessionPtr& session) {
  QLOG(Log, log::Notice, "New session established: %s <-> %s", session->localAddress().toString(),
       session->remoteAddress().toString());
  try {
    auto link = std::make_shared<SctpIceSessionLink>(reactor_, sctpService_, session);
    auto connection = std::make_shared<ClientConnection>(
        reactor_, link, bufferPool_, httpClient_, targetHost_,
        [this](ClientConnection* closed) { onClientConnectionClosed(closed); });
    connection->start();
    clientConnections_.push_back(connection);
  } catch (const std::exception& e) {
    QLOG(Log, log::Warning, "Failed to create connection from new ICE session: %s", e.what());
  }
}

void RelayService::onClientConnectionClosed(ClientConnection* connection) {
  // Called from the connection's own idle task: it goes in a later event.
  releaseLater(*reactor_, lifetime_, clientConnections_, connection);
}

void RelayService::run() {
  registrationWatch_->start();
  reactor_->run();
}

}  // namespace ferrule
}  // namespace quorvel
