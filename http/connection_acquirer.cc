#include "http/connection_acquirer.h"

#include <algorithm>
#include <utility>

#include "core/log.h"
#include "http/net_http_client.h"

namespace quorvel {

namespace {

const log::Log Log("httpclient");

}  // namespace

ConnectionAcquirer::ConnectionAcquirer(Owner& owner, uintptr_t identity, std::shared_ptr<NameResolver> resolver)
    : owner_(owner), identity_(identity), resolver_(std::move(resolver)) {}

ConnectionAcquirer::~ConnectionAcquirer() { giveBack(); }

void ConnectionAcquirer::start(const std::shared_ptr<HttpConnectionPool>& pool, const std::string& connectHost,
                               const std::string& defaultService) {
  giveBack();
  stopped_ = false;
  pool_ = pool;
  waitingAs_.reset();
  reusedFrom_.reset();
  if (reuseKnown(connectHost, defaultService)) return;
  // Assigned, not made: the strings and the list keep their room from the
  // last use.
  connectHost_ = connectHost;
  NetHttpClient::splitConnectHost(connectHost_, defaultService, host_, service_);
  destination_.host.clear();
  destination_.addresses.clear();
  destination_.connectHost = connectHost_;
  destination_.defaultService = defaultService;
  destination_.service = service_;
  QLOG(Log, log::Debug, "Resolving host %s", connectHost_);
  // A literal or a name still fresh in the resolver's memory needs no turn
  // of the loop: the pool is asked at once.
  if (const NameResolver::Result* known = resolver_->knownAnswer(host_, service_)) {
    onResolved(*known, true);
    return;
  }
  resolver_->resolve(host_, service_, [self = owner_.acquirerReference()](const NameResolver::Result& result,
                                                                        bool found) {
    if (auto acquirer = self.lock()) acquirer->onResolved(result, found);
  });
}

// A free connection made for the same connect host, whose address the
// resolver still gives without a lookup, is what the full way would hand
// over (the pool reuses the newest open connection to the destination):
// taken without splitting the host, looking it up and asking the pool.
// Only while no debug lines are written, which the full way writes.
bool ConnectionAcquirer::reuseKnown(const std::string& connectHost, const std::string& defaultService) {
  if (Log.isEnabled(log::Debug)) return false;
  const std::shared_ptr<HttpConnection>* slot = pool_->freeFor(connectHost, defaultService);
  if (!slot) return false;
  const HttpConnection& candidate = **slot;
  const HttpDestination& destination = candidate.destination();
  const NameResolver::Result* known = resolver_->knownAnswer(destination.host, destination.service);
  if (!known || std::find(known->addresses.begin(), known->addresses.end(), candidate.remoteAddress()) ==
                    known->addresses.end()) {
    return false;
  }
  connectHost_ = connectHost;
  reusedFrom_ = pool_->take(slot);
  progress();
  onConnection(reusedFrom_);
  return true;
}

void ConnectionAcquirer::onResolved(const NameResolver::Result& result, bool found) {
  if (stopped_) return;
  progress();
  if (!found) {
    QLOG(Log, log::Notice, "Failed to resolve host %s", connectHost_);
    fail(HttpClientError::ResolveFailed);
    return;
  }
  destination_.host = host_;
  // The system gives each address once per socket type.
  for (const SocketAddress& address : result.addresses) {
    if (std::find(destination_.addresses.begin(), destination_.addresses.end(), address) ==
        destination_.addresses.end()) {
      destination_.addresses.push_back(address);
    }
  }
  QLOG(Log, log::Debug, "Host %s resolved to %s, requesting a connection", connectHost_,
       destination_.addressText());
  request();
}

void ConnectionAcquirer::again() { request(); }

void ConnectionAcquirer::request() {
  if (std::shared_ptr<HttpConnection> connection = pool_->tryConnection(destination())) {
    onConnection(connection);
    return;
  }
  waitingAs_ = owner_.acquirerReference();
  const std::weak_ptr<ConnectionAcquirer> self = waitingAs_;
  pool_->waitForConnection(destination(), waitingAs_, [self](const std::shared_ptr<HttpConnection>& connection) {
    if (auto acquirer = self.lock()) {
      acquirer->onConnection(connection);
    } else {
      connection->close();
    }
  });
}

void ConnectionAcquirer::onConnection(const std::shared_ptr<HttpConnection>& connection) {
  connecting_ = connection;
  if (stopped_) {
    giveBack();
    return;
  }
  progress();
  switch (connection->state()) {
    case HttpConnection::Connected:
      QLOG(Log, log::Debug, "Got an already connected connection for %s, %s", connectHost_,
           connection->remoteAddress().toString());
      connecting_.reset();
      owner_.onAcquired(connection, true);
      break;
    case HttpConnection::Unconnected: {
      QLOG(Log, log::Debug, "Got a not yet connected connection for %s, %s", connectHost_,
           destination().addressText());
      const std::weak_ptr<ConnectionAcquirer> self = owner_.acquirerReference();
      connection->connectAny(
          identity_,
          [self](int error) {
            if (auto acquirer = self.lock()) acquirer->onConnect(error);
          },
          // A failed attempt is progress too: the next address gets its own time.
          [self]() {
            if (auto acquirer = self.lock()) acquirer->progress();
          });
      break;
    }
    default:
      QLOG(Log, log::Warning, "Got connection in unexpected state %u for %s, %s",
           static_cast<unsigned>(connection->state()), connectHost_, destination().addressText());
      fail(HttpClientError::ConnectFailed);
      break;
  }
}

void ConnectionAcquirer::onConnect(int error) {
  if (stopped_) return;
  progress();
  if (error) {
    fail(HttpClientError::ConnectFailed);
    return;
  }
  std::shared_ptr<HttpConnection> connection = std::move(connecting_);
  connecting_.reset();
  owner_.onAcquired(connection, false);
}

void ConnectionAcquirer::progress() {
  if (!stopped_) owner_.onAcquireProgress();
}

void ConnectionAcquirer::fail(HttpClientError error) {
  giveBack();
  if (!stopped_) owner_.onAcquireFailed(error);
}

void ConnectionAcquirer::stop() {
  stopped_ = true;
  giveBack();
  reusedFrom_.reset();
}

void ConnectionAcquirer::withdraw() {
  stop();
  pool_->withdrawRequest(waitingAs_);
}

void ConnectionAcquirer::giveBack() {
  if (!connecting_) return;
  std::shared_ptr<HttpConnection> connection = std::move(connecting_);
  connecting_.reset();
  connection->close();
  pool_->releaseConnection(connection, true);
}

}  // namespace quorvel
