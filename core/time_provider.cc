#include "core/time_provider.h"

#include <sys/time.h>

namespace quorvel {

Time SystemTimeProvider::now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return Time(static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec));
}

SystemTimeProvider& SystemTimeProvider::instance() {
  static SystemTimeProvider provider;
  return provider;
}

}  // namespace quorvel
