#include "tools/p2pclient/progress_meter.h"

#include <cstdio>

namespace quorvel {
namespace p2pclient {

namespace {

constexpr auto DrawPeriod = std::chrono::milliseconds(250);
constexpr auto RateWindow = std::chrono::milliseconds(1000);

double secondsBetween(ProgressMeter::Clock::time_point from, ProgressMeter::Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace

ProgressMeter::ProgressMeter(bool enabled) : enabled_(enabled) {
  start_ = lastDraw_ = windowStart_ = Clock::now();
}

std::string ProgressMeter::byteText(double bytes) {
  static const char* const units[] = {"B", "kB", "MB", "GB", "TB"};
  unsigned unit = 0;
  while (bytes >= 1000 && unit + 1 < sizeof units / sizeof units[0]) {
    bytes /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

void ProgressMeter::update(std::uint64_t bytes) {
  if (!enabled_) return;
  const auto now = Clock::now();
  if (now - lastDraw_ < DrawPeriod) return;
  lastDraw_ = now;
  // The rate over the last window rather than since the start: a stall
  // shows at once.
  if (now - windowStart_ >= RateWindow) {
    rate_ = (bytes - windowBytes_) / secondsBetween(windowStart_, now);
    windowStart_ = now;
    windowBytes_ = bytes;
  } else if (windowStart_ == start_) {
    rate_ = bytes / secondsBetween(start_, now);  // the first window: the average so far
  }
  const long long elapsed = static_cast<long long>(secondsBetween(start_, now));
  std::fprintf(stderr, "\r%10s  %10s/s  %lld:%02lld:%02lld\033[K", byteText(static_cast<double>(bytes)).c_str(),
               byteText(rate_).c_str(), elapsed / 3600, elapsed / 60 % 60, elapsed % 60);
  std::fflush(stderr);
  drawn_ = true;
}

void ProgressMeter::finish() {
  if (!drawn_) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
  drawn_ = false;
}

}  // namespace p2pclient
}  // namespace quorvel
