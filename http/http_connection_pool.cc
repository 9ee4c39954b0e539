#include "http/http_connection_pool.h"

#include <algorithm>

#include "core/log.h"

namespace quorvel {
namespace {

const log::Log Log("httppool");

}  // namespace

HttpConnectionPool::HttpConnectionPool(std::shared_ptr<Reactor> reactor, std::shared_ptr<AsyncSocketFactory> factory,
                                       std::shared_ptr<BufferChainAllocator> allocator, unsigned limit)
    : reactor_(std::move(reactor)),
      factory_(std::move(factory)),
      allocator_(std::move(allocator)),
      limit_(limit ? limit : DefaultLimit) {}

HttpConnectionPool::~HttpConnectionPool() {
  for (const auto& connection : free_) connection->close();
  for (const auto& connection : used_) connection->close();
}

std::shared_ptr<HttpConnection> HttpConnectionPool::tryConnection(const HttpDestination& destination) {
  QLOG(Log, log::Debug, "Request for connection to %s", destination.text());
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(),
                                [](const Waiting& waiting) { return waiting.owner.expired(); }),
                 waiting_.end());
  // Earlier requests go first.
  if (waiting_.empty()) return satisfy(destination);
  QLOG(Log, log::Debug, "Too many used connections");
  return nullptr;
}

const std::shared_ptr<HttpConnection>* HttpConnectionPool::freeFor(const std::string& connectHost,
                                                                   const std::string& defaultService) const {
  if (!waiting_.empty() || Log.isEnabled(log::Debug)) return nullptr;
  for (auto it = free_.rbegin(); it != free_.rend(); ++it) {
    const HttpDestination& destination = (*it)->destination();
    if ((*it)->isOpen() && destination.connectHost == connectHost && destination.defaultService == defaultService) {
      return &*it;
    }
  }
  return nullptr;
}

std::shared_ptr<HttpConnection> HttpConnectionPool::take(const std::shared_ptr<HttpConnection>* slot) {
  const auto at = free_.begin() + (slot - free_.data());
  used_.push_back(std::move(*at));
  free_.erase(at);
  return used_.back();
}

void HttpConnectionPool::waitForConnection(const HttpDestination& destination, const WeakLifetimeToken& owner,
                                           const ConnectionCallback& callback) {
  waiting_.push_back(Waiting{destination, owner, callback});
}

void HttpConnectionPool::withdrawRequest(const WeakLifetimeToken& owner) {
  const auto same = [&owner](const Waiting& waiting) {
    return !waiting.owner.owner_before(owner) && !owner.owner_before(waiting.owner);
  };
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), same), waiting_.end());
}

std::shared_ptr<HttpConnection> HttpConnectionPool::satisfy(const HttpDestination& destination) {
  QLOG(Log, log::Debug, "Trying to satisfy request for %s (%u free, %u used)", destination.text(), free_.size(),
       used_.size());
  // The most recently freed first: the least likely to have been closed by
  // the server meanwhile.
  for (auto it = free_.end(); it != free_.begin();) {
    --it;
    const std::shared_ptr<HttpConnection> connection = *it;
    if (!destination.accepts(connection->destination().host, connection->remoteAddress())) continue;
    if (!connection->isOpen()) {
      QLOG(Log, log::Debug, "Connection 0x%x closed, removing from free list", connection->id());
      it = free_.erase(it);
      continue;
    }
    QLOG(Log, log::Debug, "Using existing connection 0x%x", connection->id());
    free_.erase(it);
    used_.push_back(connection);
    return connection;
  }
  if (free_.size() + used_.size() >= limit_) {
    if (free_.empty()) {
      QLOG(Log, log::Debug, "Too many used connections");
      return nullptr;
    }
    // Going beyond the plain limit on purpose: idle connections are never
    // handed back by anyone, so a request for a host with none of them
    // would wait for ever while the pool is full of idle connections to
    // other hosts. The oldest idle one is the least likely to be reused.
    const std::shared_ptr<HttpConnection> oldest = free_.front();
    QLOG(Log, log::Debug, "Closing idle connection 0x%x to make room", oldest->id());
    free_.erase(free_.begin());
    oldest->close();
  }
  auto connection = std::make_shared<HttpConnection>(reactor_, factory_, allocator_, destination);
  QLOG(Log, log::Debug, "Created new connection 0x%x", connection->id());
  watchIdleClose(connection);
  used_.push_back(connection);
  return connection;
}

void HttpConnectionPool::releaseConnection(const std::shared_ptr<HttpConnection>& connection, bool close) {
  QLOG(Log, log::Debug, "Scheduling release of connection 0x%x (%s)", connection->id(),
       connection->destination().text());
  // Later, so that a request ending inside a socket callback is no longer
  // on the stack when its connection goes to someone else. The task holds
  // only a weak reference, so that it never keeps the loop's own objects
  // alive; the list is the pool's own.
  releases_.push_back(Release{connection, close});
  if (releasesPosted_) return;
  releasesPosted_ = true;
  reactor_->postSelfGuarded([self = anchor_.ref()]() {
    if (auto pool = self.lock()) pool->runReleases();
  });
}

void HttpConnectionPool::runReleases() {
  releasesPosted_ = false;
  // Releases scheduled from here on wait for the next task, as their own
  // task would have.
  releasing_.swap(releases_);
  for (Release& next : releasing_) {
    const Release taken = std::move(next);
    release(taken.connection, taken.close);
  }
  releasing_.clear();
}

void HttpConnectionPool::release(const std::shared_ptr<HttpConnection>& connection, bool close) {
  QLOG(Log, log::Debug, "Releasing connection 0x%x (%s), close=%u", connection->id(),
       connection->destination().text(), close ? 1u : 0u);
  const auto it = std::find(used_.begin(), used_.end(), connection);
  if (it != used_.end()) used_.erase(it);
  connection->setUser(nullptr);
  if (close || !connection->isOpen()) {
    if (!close) QLOG(Log, log::Debug, "Connection 0x%x closed, removing from free list", connection->id());
    connection->close();
  } else {
    free_.push_back(connection);
    watchIdle(connection);
  }
  QLOG(Log, log::Debug, "Now have %u free, %u used", free_.size(), used_.size());
  serveWaiting();
}

void HttpConnectionPool::serveWaiting() {
  while (!waiting_.empty()) {
    if (waiting_.front().owner.expired()) {
      waiting_.pop_front();
      continue;
    }
    QLOG(Log, log::Debug, "Connection requests exist, trying to satisfy %s", waiting_.front().destination.text());
    std::shared_ptr<HttpConnection> connection = satisfy(waiting_.front().destination);
    if (!connection) return;
    const ConnectionCallback callback = waiting_.front().callback;
    waiting_.pop_front();
    if (callback) callback(connection);
  }
}

void HttpConnectionPool::watchIdleClose(const std::shared_ptr<HttpConnection>& connection) {
  std::weak_ptr<HttpConnectionPool> weak = shared_from_this();
  // Only the connection itself calls this, so a plain pointer to it is
  // valid here, and with it the handler fits a Delegate without a heap block.
  HttpConnection* closed = connection.get();
  connection->setIdleClosedHandler([weak, closed]() {
    if (std::shared_ptr<HttpConnectionPool> self = weak.lock()) self->onIdleClosed(closed);
  });
}

// One read stays outstanding while it waits, to see the server close it.
void HttpConnectionPool::watchIdle(const std::shared_ptr<HttpConnection>& connection) { connection->receive(); }

void HttpConnectionPool::onIdleClosed(HttpConnection* closed) {
  const auto it = std::find_if(free_.begin(), free_.end(),
                               [closed](const std::shared_ptr<HttpConnection>& c) { return c.get() == closed; });
  if (it == free_.end()) return;
  const std::shared_ptr<HttpConnection> connection = *it;
  QLOG(Log, log::Debug, "Connection 0x%x closed, removing from free list", connection->id());
  free_.erase(it);
  QLOG(Log, log::Debug, "Now have %u free, %u used", free_.size(), used_.size());
  serveWaiting();
}

}  // namespace quorvel
