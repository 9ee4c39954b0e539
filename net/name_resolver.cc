#include "net/name_resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include <boost/bind/bind.hpp>

#include "core/log.h"
#include "net/resolver_cache.h"

namespace quorvel {
namespace {

const log::Log Log("resolver");

struct ServiceEntry {
  const char* name;
  uint16_t port;
};

// Looked up here rather than in the system's service database, which the
// device may not have.
const ServiceEntry Services[] = {{"http", 80}, {"https", 443}, {"rtsp", 554}, {"stun", 3478}, {"", 0}};

// What an answer given without the worker carries to the loop, in one block:
// the posted task then holds a single pointer, which fits a Delegate without
// a block of its own and moves through the loop's queue without copying the
// caller's callback each time.
template <typename Held>
struct Answer {
  Held result;
  NameResolver::Callback callback;
};

}  // namespace

NetNameResolver::NetNameResolver(std::shared_ptr<Reactor> reactor)
    : reactor_(std::move(reactor)),
      cache_(std::make_unique<ResolverCache>()),
      runner_(std::make_unique<WorkRunner<WorkItem>>(&NetNameResolver::lookUp,
                                                     boost::bind(&NetNameResolver::handBack, this,
                                                                 boost::placeholders::_1))) {}

NetNameResolver::~NetNameResolver() { runner_.reset(); }

void NetNameResolver::resolve(const std::string& host, const std::string& service, const Callback& callback) {
  Result result;
  if (resolveLiteral(host, service, result)) {
    auto literal = std::make_shared<Answer<Result>>();
    literal->result = std::move(result);
    literal->callback = callback;
    reactor_->post(token_, [literal]() {
      if (literal->callback) literal->callback(literal->result, true);
    });
    return;
  }
  QLOG(Log, log::Debug, "Resolving host %s, service %s", host, service);
  if (std::shared_ptr<const ResolverCache::Entry> kept = cache_->find(host, service, reactor_->steadyNow())) {
    // The lines the lookup logged, so that the log reads the same either way.
    if (Log.isEnabled(log::Debug)) {
      for (const SocketAddress& address : kept->addresses) {
        QLOG(Log, log::Debug, "%s -> %s", host, address.addressText());
      }
    }
    auto answer = std::make_shared<Answer<std::shared_ptr<const ResolverCache::Entry>>>();
    answer->result = std::move(kept);
    answer->callback = callback;
    reactor_->post(token_, [answer]() {
      WorkRunner<WorkItem>::deliver([&] {
        if (answer->callback) answer->callback(*answer->result, true);
      });
    });
    return;
  }
  auto item = std::make_shared<WorkItem>();
  item->host = host;
  item->service = service;
  item->callback = callback;
  runner_->enqueue(item);
}

const NameResolver::Result* NetNameResolver::knownAnswer(const std::string& host, const std::string& service) {
  if (literalKept_ && host == literal_.host && service == literal_.service) return &literal_;
  // A failed parse leaves the kept literal as it was.
  if (resolveLiteral(host, service, literal_)) {
    literalKept_ = true;
    return &literal_;
  }
  const std::shared_ptr<const ResolverCache::Entry> kept = cache_->find(host, service, reactor_->steadyNow());
  if (!kept) return nullptr;
  // The lines resolve() logs, so that the log reads the same either way.
  if (Log.isEnabled(log::Debug)) {
    QLOG(Log, log::Debug, "Resolving host %s, service %s", host, service);
    for (const SocketAddress& address : kept->addresses) QLOG(Log, log::Debug, "%s -> %s", host, address.addressText());
  }
  // The cache holds the entry until a later answer for the same name
  // replaces it, which only the loop can bring.
  return kept.get();
}

bool NetNameResolver::resolveLiteral(const std::string& host, const std::string& service, Result& result) {
  // A name is told from a literal without asking the parser twice: an IPv4
  // literal is digits and dots, an IPv6 one has a colon.
  if (host.find(':') == std::string::npos && host.find_first_not_of("0123456789.") != std::string::npos) return false;
  in6_addr bytes;
  int family;
  if (inet_pton(AF_INET, host.c_str(), &bytes) == 1) {
    family = AF_INET;
  } else if (inet_pton(AF_INET6, host.c_str(), &bytes) == 1) {
    family = AF_INET6;
  } else {
    return false;
  }
  unsigned long port;
  if (service == "http") {
    port = 80;
  } else if (service == "https") {
    port = 443;
  } else {
    if (service.empty() || service.size() > 5 || service.find_first_not_of("0123456789") != std::string::npos) {
      return false;
    }
    port = std::stoul(service);
    if (port > 65535) return false;
  }
  result.host = host;
  result.service = service;
  result.addresses.assign(1, SocketAddress(family, host, static_cast<uint16_t>(port)));
  return true;
}

void NetNameResolver::lookUp(WorkItem& item) {
  uint16_t port = 0;
  for (const ServiceEntry* entry = Services; entry->name[0] != '\0'; ++entry) {
    if (item.service == entry->name) {
      port = entry->port;
      break;
    }
  }
  const char* service = port != 0 || item.service.empty() ? nullptr : item.service.c_str();
  addrinfo* found = nullptr;
  const int result = ::getaddrinfo(item.host.empty() ? nullptr : item.host.c_str(), service, nullptr, &found);
  if (result != 0) {
    QLOG(Log, log::Notice, "Failed to resolve host %s, service %s: error code %d", item.host, item.service, result);
    return;
  }
  for (const addrinfo* entry = found; entry; entry = entry->ai_next) {
    if (!entry->ai_addr || entry->ai_addrlen > SocketAddress::StorageSize) continue;
    SocketAddress address(entry->ai_addr, entry->ai_addrlen);
    if (port != 0) address.setPort(port);
    QLOG(Log, log::Debug, "%s -> %s", item.host, address.addressText());
    item.addresses.push_back(address);
  }
  ::freeaddrinfo(found);
}

void NetNameResolver::handBack(const std::shared_ptr<WorkItem>& item) {
  // On the worker thread: the reactor takes it from here; a resolver gone by
  // then takes its token along and the result is dropped.
  reactor_->post(token_, [this, item] {
    if (!item->addresses.empty()) cache_->store(item->host, item->service, item->addresses, reactor_->steadyNow());
    WorkRunner<WorkItem>::deliver([&item] {
      if (item->callback) item->callback(*item, !item->addresses.empty());
    });
  });
}

}  // namespace quorvel
