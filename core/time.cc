#include "core/time.h"

#include <cinttypes>
#include <cstdio>

namespace quorvel {
namespace {

constexpr uint64_t UsPerSecond = 1000000;
constexpr uint64_t UsPerMinute = 60 * UsPerSecond;
constexpr uint64_t UsPerHour = 60 * UsPerMinute;
constexpr uint64_t UsPerDay = 24 * UsPerHour;

struct CivilDate {
  unsigned year;  // at most about 586 000: the microseconds of a uint64_t
  unsigned month;
  unsigned day;
};

// Proleptic Gregorian date of a day count since 1970-01-01, done in integer
// arithmetic over 400-year eras so that no time-zone database is consulted.
// Times never precede 1970, so the count is never negative.
CivilDate civilFromDays(uint64_t days) {
  days += 719468;
  const uint64_t era = days / 146097;
  const uint64_t dayOfEra = days - era * 146097;
  const uint64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const uint64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const uint64_t monthIndex = (5 * dayOfYear + 2) / 153;
  const unsigned day = static_cast<unsigned>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
  const unsigned month = static_cast<unsigned>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
  const unsigned year = static_cast<unsigned>(yearOfEra + era * 400 + (month <= 2 ? 1 : 0));
  return {year, month, day};
}

const char* special(char (&buffer)[TimeTextSize], const char* name) {
  std::snprintf(buffer, TimeTextSize, "%s", name);
  return buffer;
}

// Appends the fraction (truncated milliseconds, or microseconds) to a text
// that already holds the whole seconds.
void appendFraction(char (&buffer)[TimeTextSize], uint64_t fraction, int precision) {
  if (precision == 0) return;
  const std::size_t used = std::char_traits<char>::length(buffer);
  if (precision == 1) {
    std::snprintf(buffer + used, TimeTextSize - used, ".%03u", static_cast<unsigned>(fraction / 1000));
  } else {
    std::snprintf(buffer + used, TimeTextSize - used, ".%06u", static_cast<unsigned>(fraction));
  }
}

}  // namespace

const char* Duration::toString(char (&buffer)[TimeTextSize], int precision) const {
  if (*this == MaxDuration) return special(buffer, "MaxDuration");
  if (*this == MinDuration) return special(buffer, "MinDuration");
  const bool negative = us_ < 0;
  const uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(us_) : static_cast<uint64_t>(us_);
  std::snprintf(buffer, TimeTextSize, "%s%02" PRIu64 ":%02u:%02u", negative ? "-" : "",
                magnitude / UsPerHour, static_cast<unsigned>((magnitude / UsPerMinute) % 60),
                static_cast<unsigned>((magnitude / UsPerSecond) % 60));
  appendFraction(buffer, magnitude % UsPerSecond, precision);
  return buffer;
}

std::string Duration::toString(int precision) const {
  char buffer[TimeTextSize];
  return toString(buffer, precision);
}

const char* Time::toString(char (&buffer)[TimeTextSize], int precision) const {
  if (*this == MinTime) return special(buffer, "MinTime");
  if (*this == MaxTime) return special(buffer, "MaxTime");
  const CivilDate date = civilFromDays(us_ / UsPerDay);
  std::snprintf(buffer, TimeTextSize, "%04u-%02u-%02u %02u:%02u:%02u", date.year, date.month, date.day,
                static_cast<unsigned>((us_ / UsPerHour) % 24), static_cast<unsigned>((us_ / UsPerMinute) % 60),
                static_cast<unsigned>((us_ / UsPerSecond) % 60));
  appendFraction(buffer, us_ % UsPerSecond, precision);
  return buffer;
}

std::string Time::toString(int precision) const {
  char buffer[TimeTextSize];
  return toString(buffer, precision);
}

}  // namespace quorvel
