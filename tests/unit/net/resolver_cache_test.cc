#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/asio_reactor.h"
#include "net/name_resolver.h"
#include "net/resolver_cache.h"

namespace quorvel {
namespace {

const Time Start = Time::fromUnixSeconds(1700000000);

std::vector<SocketAddress> one(const char* address) { return {SocketAddress(AF_INET, address, 80)}; }

TEST(ResolverCacheTest, KeepsAnAnswerForItsLifetimeAndMakesRoomByExpiry) {
  ResolverCache cache;
  cache.store("relay.test", "https", one("198.18.0.1"), Start);
  struct Case {
    const char* host;
    const char* service;
    Duration after;
    bool found;
  } cases[] = {{"relay.test", "https", ResolverCache::Lifetime - Duration::microseconds(1), true},
               {"relay.test", "https", ResolverCache::Lifetime, false},
               {"relay.test", "http", Duration::seconds(0), false},
               {"other.test", "https", Duration::seconds(0), false}};
  for (const Case& c : cases) {
    EXPECT_EQ(cache.find(c.host, c.service, Start + c.after) != nullptr, c.found) << c.host << " " << c.service;
  }
  // A new answer replaces the old one and lives from its own time.
  cache.store("relay.test", "https", one("198.18.0.2"), Start + Duration::seconds(5));
  const auto entry = cache.find("relay.test", "https", Start + Duration::seconds(12));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->addresses, one("198.18.0.2"));
  EXPECT_EQ(cache.size(), 1u);

  // Full: the entry that expires first goes.
  for (std::size_t i = 1; i < ResolverCache::Capacity + 1; ++i) {
    cache.store("host" + std::to_string(i), "http", one("198.18.0.3"), Start + Duration::seconds(6));
  }
  EXPECT_EQ(cache.size(), ResolverCache::Capacity);
  EXPECT_FALSE(cache.find("relay.test", "https", Start + Duration::seconds(6)));
  EXPECT_TRUE(cache.find("host16", "http", Start + Duration::seconds(6)));
}

// The system's answers as seen through the resolver, from a hosts file of
// the test's own, bind-mounted over /etc/hosts in private network and mount
// namespaces that only this thread (and the resolver's worker) live in.
class HostsFile {
 public:
  HostsFile() {
    char name[] = "/tmp/ferrule-hosts-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd >= 0) ::close(fd);
    path_ = fd >= 0 ? name : "";
  }
  ~HostsFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  bool mountOverEtcHosts() {
    return !path_.empty() && ::unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 &&
           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount(path_.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
  }
  // In place: the bind mount shows the file's inode.
  void write(const std::string& text) {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
  }

 private:
  std::string path_;
};

NameResolver::Result resolveOnce(AsioReactor& reactor, NetNameResolver& resolver, const std::string& host) {
  NameResolver::Result answer;
  resolver.resolve(host, "http", [&](const NameResolver::Result& result, bool) {
    answer = result;
    reactor.stop();
  });
  LifetimeToken guard = makeLifetimeToken();
  reactor.scheduleAfter(guard, Duration::seconds(20), [&reactor] { reactor.stop(); });
  reactor.ioContext().restart();
  reactor.run();
  return answer;
}

TEST(ResolverCacheTest, ResolverReusesFoundAddressesButNotFailures) {
  HostsFile hosts;
  bool isolated = false;
  std::thread thread([&] {
    if (!hosts.mountOverEtcHosts()) return;
    isolated = true;
    auto reactor = std::make_shared<AsioReactor>();
    NetNameResolver resolver(reactor);
    hosts.write("198.18.0.1 kept.test\n");
    EXPECT_EQ(resolveOnce(*reactor, resolver, "kept.test").addresses.at(0), SocketAddress(AF_INET, "198.18.0.1", 80));
    EXPECT_TRUE(resolveOnce(*reactor, resolver, "later.test").addresses.empty());
    hosts.write("198.18.0.2 kept.test\n198.18.0.3 later.test\n");
    // Within its lifetime the first answer stands; the failure was not kept.
    EXPECT_EQ(resolveOnce(*reactor, resolver, "kept.test").addresses.at(0), SocketAddress(AF_INET, "198.18.0.1", 80));
    EXPECT_EQ(resolveOnce(*reactor, resolver, "later.test").addresses.at(0), SocketAddress(AF_INET, "198.18.0.3", 80));
  });
  thread.join();
  if (!isolated) GTEST_SKIP() << "cannot make network and mount namespaces (needs root)";
}

}  // namespace
}  // namespace quorvel
