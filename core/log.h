#pragma once

#include <atomic>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/time.h"

namespace quorvel {
namespace log {

enum Level : int { Fatal = 1, Error = 2, Warning = 3, Notice = 4, Info = 5, Debug = 6, Spam = 7 };

class Log;

// One argument of a log call, with the type it is printed as: each prints as
// an output stream prints it (as Boost.Format does), so a short keeps its own
// width for %x of a negative value and a char or uint8_t prints as a
// character. Erasing the call sites' types to these few lets one formatter
// serve every call site. Holds references only: it lives no longer than the log call's
// statement.
class LogArg {
 public:
  enum class Kind : unsigned char {
    Bool, Char, SignedChar, UnsignedChar, Short, UnsignedShort, Int, Unsigned,
    Long, UnsignedLong, LongLong, UnsignedLongLong, Double, Text
  };

  LogArg(bool value) : kind_(Kind::Bool) { value_.b = value; }
  LogArg(char value) : kind_(Kind::Char) { value_.c = value; }
  LogArg(signed char value) : kind_(Kind::SignedChar) { value_.sc = value; }
  LogArg(unsigned char value) : kind_(Kind::UnsignedChar) { value_.uc = value; }
  LogArg(short value) : kind_(Kind::Short) { value_.s = value; }
  LogArg(unsigned short value) : kind_(Kind::UnsignedShort) { value_.us = value; }
  LogArg(int value) : kind_(Kind::Int) { value_.i = value; }
  LogArg(unsigned value) : kind_(Kind::Unsigned) { value_.u = value; }
  LogArg(long value) : kind_(Kind::Long) { value_.l = value; }
  LogArg(unsigned long value) : kind_(Kind::UnsignedLong) { value_.ul = value; }
  LogArg(long long value) : kind_(Kind::LongLong) { value_.ll = value; }
  LogArg(unsigned long long value) : kind_(Kind::UnsignedLongLong) { value_.ull = value; }
  // A float prints as the double it widens to, as a stream prints it.
  LogArg(double value) : kind_(Kind::Double) { value_.d = value; }
  LogArg(float value) : LogArg(static_cast<double>(value)) {}
  // Unscoped enumerations print as their underlying type, as a stream prints
  // them: a number, or a character for one based on uint8_t.
  template <typename T, std::enable_if_t<std::is_enum<T>::value && std::is_convertible<T, int>::value, int> = 0>
  LogArg(T value) : LogArg(static_cast<std::underlying_type_t<T>>(value)) {}
  LogArg(const char* text) : kind_(Kind::Text), text_{text, text ? std::strlen(text) : 0} {}
  // std::string, std::string_view and other views of characters.
  template <typename T, std::enable_if_t<std::is_convertible<decltype(std::declval<const T&>().data()), const char*>::value &&
                                             std::is_integral<decltype(std::declval<const T&>().size())>::value,
                                         int> = 0>
  LogArg(const T& text) : kind_(Kind::Text), text_{text.data(), static_cast<std::size_t>(text.size())} {}

 private:
  friend class Formatter;
  struct Text {
    const char* data;
    std::size_t size;
  };

  Kind kind_;
  union {
    union {
      bool b;
      char c;
      signed char sc;
      unsigned char uc;
      short s;
      unsigned short us;
      int i;
      unsigned u;
      long l;
      unsigned long ul;
      long long ll;
      unsigned long long ull;
      double d;
    } value_;
    Text text_;
  };
};

// A call site's format text, parsed once (core/log_format.h).
class ParsedFormat;

}  // namespace log

class LogWriter {
 public:
  virtual ~LogWriter() = default;
  virtual void write(Time time, const log::Log& log, int level, int id, const std::string& message) = 0;
};

namespace log {

// One node per log name; the root carries the global threshold. A threshold
// of 0 means "ask the parent".
struct LogNode {
  std::shared_ptr<LogNode> parent;
  std::vector<std::shared_ptr<LogWriter>> writers;
  int threshold = 0;
};

// The highest threshold set on any node: a level above it is enabled
// nowhere. Most checks on a busy path are for levels that are off, and learn
// it from this one read instead of a walk up the nodes.
extern std::atomic<int> highestThreshold;

// A named log handle, kept as a static per source unit.
class Log {
 public:
  explicit Log(const std::string& name);
  Log(const std::string& name, int id);

  const std::string& name() const { return name_; }
  int id() const { return id_; }

  bool isEnabled(int level) const {
    return level <= highestThreshold.load(std::memory_order_relaxed) && isEnabledByNodes(level);
  }
  // Writes without checking the threshold: callers check isEnabled first so
  // that a disabled message costs no formatting at all.
  void write(int level, const std::string& message) const;
  // Formats (see formatMessage) and writes, without checking the threshold.
  void writeFormatted(int level, const ParsedFormat* parsed, const char* text, std::initializer_list<LogArg> args) const;

 private:
  bool isEnabledByNodes(int level) const;

  std::string name_;
  std::shared_ptr<LogNode> node_;
  int id_;
};

void setGlobalLevel(int level);
void setLevel(const std::string& name, int level);
void addWriter(std::shared_ptr<LogWriter> writer);

// "FATAL" ... "SPAM", or "[n]" for any other value.
std::string levelName(int level);

// The parsed form of a format text (the syntax is in core/log_format.h), kept
// for the life of the process; null when the text itself does not parse.
const ParsedFormat* parseFormat(const char* text);

// The message for a parsed format text and its arguments; the text itself
// with " (log formatting error)" when the text does not parse or the
// arguments do not fit its directives.
std::string formatMessage(const ParsedFormat* parsed, const char* text, std::initializer_list<LogArg> args);

}  // namespace log
}  // namespace quorvel

// Checks the level first; the arguments are evaluated and the message is
// formatted only when it is enabled. The format text is parsed once per call
// site (thread-safe function-local static); the formatting itself is one
// function shared by all call sites.
#define QLOG(logHandle, level, format, ...)                                                  \
  do {                                                                                       \
    const ::quorvel::log::Log& qlogHandle_ = (logHandle);                                    \
    const int qlogLevel_ = (level);                                                          \
    if (qlogHandle_.isEnabled(qlogLevel_)) {                                                 \
      static const ::quorvel::log::ParsedFormat* const qlogParsed_ =                         \
          ::quorvel::log::parseFormat(format);                                               \
      qlogHandle_.writeFormatted(qlogLevel_, qlogParsed_, format, {__VA_ARGS__});            \
    }                                                                                        \
  } while (0)
