#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace quorvel {

// Text forms are written into a caller's buffer of this size so that log
// lines never touch the heap for their timestamp.
constexpr std::size_t TimeTextSize = 40;

// A signed span of microseconds.
class Duration {
 public:
  constexpr Duration() : us_(0) {}
  constexpr explicit Duration(int64_t microseconds) : us_(microseconds) {}

  static constexpr Duration microseconds(int64_t us) { return Duration(us); }
  static constexpr Duration milliseconds(int64_t ms) { return Duration(ms * 1000); }
  static constexpr Duration seconds(int32_t s) { return Duration(static_cast<int64_t>(s) * 1000000); }

  constexpr int64_t count() const { return us_; }

  // Precision 0: whole seconds, 1: milliseconds, anything else: microseconds.
  const char* toString(char (&buffer)[TimeTextSize], int precision) const;
  std::string toString(int precision) const;

  constexpr Duration operator+(Duration o) const { return Duration(wrapAdd(us_, o.us_)); }
  constexpr Duration operator-(Duration o) const { return Duration(wrapSub(us_, o.us_)); }
  Duration& operator+=(Duration o) { return *this = *this + o; }
  Duration& operator-=(Duration o) { return *this = *this - o; }
  constexpr Duration operator*(int64_t n) const {
    return Duration(static_cast<int64_t>(static_cast<uint64_t>(us_) * static_cast<uint64_t>(n)));
  }

  constexpr bool operator==(Duration o) const { return us_ == o.us_; }
  constexpr bool operator!=(Duration o) const { return us_ != o.us_; }
  constexpr bool operator<(Duration o) const { return us_ < o.us_; }
  constexpr bool operator<=(Duration o) const { return us_ <= o.us_; }
  constexpr bool operator>(Duration o) const { return us_ > o.us_; }
  constexpr bool operator>=(Duration o) const { return us_ >= o.us_; }

 private:
  // Arithmetic wraps around like the plain 64-bit integers it stands for;
  // going through unsigned keeps that well defined.
  static constexpr int64_t wrapAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
  }
  static constexpr int64_t wrapSub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
  }

  int64_t us_;
};

constexpr Duration MaxDuration{std::numeric_limits<int64_t>::max()};
constexpr Duration MinDuration{std::numeric_limits<int64_t>::min()};

// An instant: microseconds since 1970-01-01 00:00:00 UTC.
class Time {
 public:
  constexpr Time() : us_(0) {}
  constexpr explicit Time(uint64_t microseconds) : us_(microseconds) {}

  static constexpr Time fromUnixSeconds(int32_t s) {
    return Time(static_cast<uint64_t>(static_cast<int64_t>(s) * 1000000));
  }

  constexpr uint64_t count() const { return us_; }

  const char* toString(char (&buffer)[TimeTextSize], int precision) const;
  std::string toString(int precision) const;

  constexpr Time operator+(Duration d) const { return Time(us_ + static_cast<uint64_t>(d.count())); }
  constexpr Time operator-(Duration d) const { return Time(us_ - static_cast<uint64_t>(d.count())); }
  Time& operator+=(Duration d) { return *this = *this + d; }
  Time& operator-=(Duration d) { return *this = *this - d; }
  constexpr Duration operator-(Time o) const { return Duration(static_cast<int64_t>(us_ - o.us_)); }

  constexpr bool operator==(Time o) const { return us_ == o.us_; }
  constexpr bool operator!=(Time o) const { return us_ != o.us_; }
  constexpr bool operator<(Time o) const { return us_ < o.us_; }
  constexpr bool operator<=(Time o) const { return us_ <= o.us_; }
  constexpr bool operator>(Time o) const { return us_ > o.us_; }
  constexpr bool operator>=(Time o) const { return us_ >= o.us_; }

 private:
  uint64_t us_;
};

// 0 also stands for "no time at all", e.g. the modification time of a file
// that does not exist.
constexpr Time MinTime{0};
constexpr Time MaxTime{std::numeric_limits<uint64_t>::max()};

}  // namespace quorvel
