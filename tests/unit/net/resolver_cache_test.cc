#include "net/resolver_cache.h"

#include <netinet/in.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quorvel {
namespace {

const SteadyTime Start{3600000000};

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

}  // namespace
}  // namespace quorvel
