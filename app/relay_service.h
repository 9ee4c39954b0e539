#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app/client_connection.h"
#include "app/registration_file.h"
#include "core/asio_reactor.h"
#include "core/lifetime.h"
#include "core/random_source.h"
#include "http/http_client.h"
#include "http/http_forwarder.h"
#include "http/web_handler_container.h"
#include "ice/connect_request_handler.h"
#include "ice/ice_session_manager.h"
#include "ice/session.h"
#include "net/async_socket.h"
#include "net/buffer_pool.h"
#include "net/local_network_info.h"
#include "net/name_resolver.h"
#include "revhttp/reverse_http_client.h"
#include "sctp/sctp_udp_service.h"
#include "stun/net_stun_agent.h"

namespace quorvel {
namespace ferrule {

// "https://KEY.BASE/rhttp/register": the device key is the first label of the
// relay host, and a path in the base is kept ahead of "rhttp/register".
std::string relayRegistrationUrl(const std::string& key, const std::string& relayUrlBase);

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
  // A new device key: a fresh relay client replaces the previous one.
  void startRelay(const std::string& key);
  // An ICE session that a remote client has established with the device:
  // SCTP is carried over it and the client's connections are served. A
  // failure is logged and the session gets no client connection.
  void onNewSession(const ice::SessionPtr& session);
  // Idle: the connection goes, and with it its link, associations and ICE
  // session.
  void onClientConnectionClosed(ClientConnection* connection);

  const std::string registrationFile_;
  const std::string targetHost_;
  const std::string relayUrlBase_;
  const std::string stunServer_;

  // Built in this order; later components are handed the earlier ones.
  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<AsyncSocketFactory> socketFactory_;
  std::shared_ptr<AsyncSocketFactory> sslSocketFactory_;
  std::shared_ptr<NameResolver> resolver_;
  std::shared_ptr<BufferPool> bufferPool_;
  std::shared_ptr<SctpUdpService> sctpService_;
  std::shared_ptr<HttpClient> httpClient_;
  std::shared_ptr<RandomSource> randomSource_;
  std::shared_ptr<stun::NetStunAgent> stunAgent_;
  std::shared_ptr<LocalNetworkInfo> localNetworkInfo_;
  std::shared_ptr<ice::IceSessionManager> sessionManager_;
  std::shared_ptr<WebHandlerContainer> handlers_;
  std::shared_ptr<ConnectRequestHandler> connectHandler_;
  std::shared_ptr<HttpForwarder> forwarder_;

  std::unique_ptr<RegistrationFileWatch> registrationWatch_;
  std::shared_ptr<ReverseHttpClient> relayClient_;
  std::vector<std::shared_ptr<ClientConnection>> clientConnections_;  // in order of creation

  LifetimeToken lifetime_ = makeLifetimeToken();
};

}  // namespace ferrule
}  // namespace quorvel
