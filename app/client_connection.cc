#include "app/client_connection.h"

#include <algorithm>
#include <cerrno>

#include <netinet/in.h>
#include <sys/socket.h>

#include "core/log.h"
#include "core/release_later.h"

namespace quorvel {
namespace ferrule {
namespace {

const log::Log Log("ferrule");

}  // namespace

const Duration ClientConnection::IdlePeriod = Duration::seconds(30);

ClientConnection::ClientConnection(std::shared_ptr<Reactor> reactor, std::shared_ptr<IceSessionLink> link,
                                   std::shared_ptr<BufferPool> pool, std::shared_ptr<HttpClient> httpClient,
                                   std::string targetHost, ClosedCallback closedCallback)
    : reactor_(std::move(reactor)),
      link_(std::move(link)),
      pool_(std::move(pool)),
      httpClient_(std::move(httpClient)),
      targetHost_(std::move(targetHost)),
      closedCallback_(std::move(closedCallback)),
      idleTask_([this] { onIdle(); }) {}

ClientConnection::~ClientConnection() {
  idleTask_.cancel();
  if (listener_) listener_->close();
  streams_.clear();
  link_->close();
}

void ClientConnection::start() {
  listener_ = link_->createListener(SocketAddress::FamilySpecial, SOCK_STREAM, IPPROTO_SCTP);
  listener_->bind(SocketAddress(SocketAddress::FamilySpecial, std::string(), SctpPort));
  listener_->listen(8);
  accept();
  // Also when no connection ever comes, so that a client that goes quiet
  // after ICE leaves nothing behind.
  startIdleTimer();
}

void ClientConnection::accept() {
  const std::weak_ptr<ClientConnection> weak = shared_from_this();
  listener_->accept([weak](int error, std::shared_ptr<AsyncSocket> socket) {
    if (std::shared_ptr<ClientConnection> self = weak.lock()) self->onAccepted(error, socket);
  });
}

void ClientConnection::onAccepted(int error, const std::shared_ptr<AsyncSocket>& socket) {
  if (error == ECANCELED) return;
  if (error || !socket) {
    retryAccept(error);
    return;
  }
  acceptRetry_ = Duration();
  onNewConnection(socket->remoteAddress(), socket);
  accept();
}

// Logged once per run of failures, at its start.
void ClientConnection::retryAccept(int error) {
  if (acceptRetry_ == Duration()) {
    QLOG(Log, log::Notice, "SCTP accept failed with code %d, retrying with back-off", error);
    acceptRetry_ = FirstAcceptRetry;
  } else {
    acceptRetry_ = std::min(acceptRetry_ * 2, MaxAcceptRetry);
  }
  reactor_->scheduleAfter(token_, acceptRetry_, [this] { accept(); });
}

void ClientConnection::onNewConnection(const SocketAddress& peer, const std::shared_ptr<AsyncSocket>& socket) {
  if (streams_.size() >= MaxConnections) {
    // Shut down at once: the client sees its association end without data.
    QLOG(Log, log::Notice, "Connection limit of %u reached, closing SCTP connection from %s",
         static_cast<unsigned>(MaxConnections), peer.toString());
    socket->close();
    return;
  }
  QLOG(Log, log::Notice, "Got new SCTP connection from %s", peer.toString());
  idleTask_.cancel();
  const std::weak_ptr<ClientConnection> weak = shared_from_this();
  // A connection that sends no query goes after the idle period, as a
  // session without connections does.
  auto relay = std::make_shared<StreamRelay>(reactor_, socket, pool_, httpClient_, targetHost_, IdlePeriod,
                                             [weak](StreamRelay* closed) {
                                               if (std::shared_ptr<ClientConnection> self = weak.lock()) {
                                                 self->onStreamClosed(closed);
                                               }
                                             });
  streams_.push_back(relay);
  relay->start();
}

void ClientConnection::onStreamClosed(StreamRelay* relay) {
  const std::size_t before = streams_.size();
  // Called from inside the relay: it goes in a later event.
  releaseLater(*reactor_, token_, streams_, relay);
  if (streams_.size() < before && streams_.empty()) {
    QLOG(Log, log::Notice, "All connections closed, starting idle timer");
    startIdleTimer();
  }
}

void ClientConnection::startIdleTimer() {
  idleTask_.cancel();
  reactor_->scheduleAfter(token_, IdlePeriod, idleTask_.start());
}

void ClientConnection::onIdle() {
  if (!streams_.empty()) return;
  QLOG(Log, log::Notice, "No incoming connection for %ds, closing", IdlePeriod.count() / 1000000);
  closedCallback_(this);
}

}  // namespace ferrule
}  // namespace quorvel
