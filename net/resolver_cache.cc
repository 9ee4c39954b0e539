#include "net/resolver_cache.h"

#include <algorithm>

namespace quorvel {

constexpr Duration ResolverCache::Lifetime;
constexpr std::size_t ResolverCache::Capacity;

std::shared_ptr<const ResolverCache::Entry> ResolverCache::find(const std::string& host, const std::string& service,
                                                                SteadyTime now) const {
  for (const std::shared_ptr<const Entry>& entry : entries_) {
    if (entry->host == host && entry->service == service) return now < entry->expires ? entry : nullptr;
  }
  return nullptr;
}

void ResolverCache::store(const std::string& host, const std::string& service,
                          const std::vector<SocketAddress>& addresses, SteadyTime now) {
  auto made = std::make_shared<Entry>();
  made->host = host;
  made->service = service;
  made->addresses = addresses;
  made->expires = now + Lifetime;
  std::shared_ptr<const Entry> entry = std::move(made);
  for (std::shared_ptr<const Entry>& kept : entries_) {
    if (kept->host == host && kept->service == service) {
      kept = std::move(entry);
      return;
    }
  }
  if (entries_.size() < Capacity) {
    entries_.push_back(std::move(entry));
    return;
  }
  const auto first = std::min_element(entries_.begin(), entries_.end(),
                                      [](const auto& a, const auto& b) { return a->expires < b->expires; });
  *first = std::move(entry);
}

}  // namespace quorvel
