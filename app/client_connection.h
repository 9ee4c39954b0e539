#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/stream_relay.h"
#include "core/cancelable_task.h"
#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"
#include "http/http_client.h"
#include "net/async_socket.h"
#include "net/buffer_pool.h"
#include "sctp/ice_session_link.h"

namespace quorvel {
namespace ferrule {

// One remote client's established ICE session: listens for the SCTP
// connections the client opens over it and gives each a StreamRelay. With no
// connection for 30 seconds (none yet, or none since the last closed) it
// reports itself closed; the owner then releases it, and with it the link,
// the associations and the ICE session.
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  using ClosedCallback = Delegate<void(ClientConnection* connection)>;

  static const Duration IdlePeriod;
  // An accept that fails is tried again after this, doubling up to the
  // maximum: a persistent error must not become a busy loop.
  static constexpr Duration FirstAcceptRetry = Duration::milliseconds(100);
  static constexpr Duration MaxAcceptRetry = Duration::seconds(5);
  // The device's end of every association.
  static constexpr uint16_t SctpPort = 5000;
  // Connections served at once on one session; more are closed as they come,
  // so that one client cannot take the device's memory with associations.
  static constexpr std::size_t MaxConnections = 8;

  ClientConnection(std::shared_ptr<Reactor> reactor, std::shared_ptr<IceSessionLink> link,
                   std::shared_ptr<BufferPool> pool, std::shared_ptr<HttpClient> httpClient, std::string targetHost,
                   ClosedCallback closedCallback);
  // Closes the listener, the stream relays and the link.
  ~ClientConnection();
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  // Listens on the link and starts the idle timer. Throws what the link
  // throws when it cannot listen.
  void start();

  // A connection the listener accepted.
  void onNewConnection(const SocketAddress& peer, const std::shared_ptr<AsyncSocket>& socket);

  std::size_t streamCount() const { return streams_.size(); }
  bool idleTimerRunning() const { return idleTask_.isStarted(); }

 private:
  void accept();
  void onAccepted(int error, const std::shared_ptr<AsyncSocket>& socket);
  void retryAccept(int error);
  void onStreamClosed(StreamRelay* relay);
  void startIdleTimer();
  void onIdle();

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<IceSessionLink> link_;
  std::shared_ptr<BufferPool> pool_;
  std::shared_ptr<HttpClient> httpClient_;
  const std::string targetHost_;
  ClosedCallback closedCallback_;

  std::shared_ptr<AsyncListener> listener_;
  std::vector<std::shared_ptr<StreamRelay>> streams_;
  // The wait before the next retry of a failing accept; zero while accepts
  // work.
  Duration acceptRetry_;
  CancelableTask idleTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ferrule
}  // namespace quorvel
