#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/format.hpp>

#include "core/time.h"

namespace quorvel {
namespace log {

enum Level : int { Fatal = 1, Error = 2, Warning = 3, Notice = 4, Info = 5, Debug = 6, Spam = 7 };

class Log;

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

// A named log handle, kept as a static per source unit.
class Log {
 public:
  explicit Log(const std::string& name);
  Log(const std::string& name, int id);

  const std::string& name() const { return name_; }
  int id() const { return id_; }

  bool isEnabled(int level) const;
  // Writes without checking the threshold: callers check isEnabled first so
  // that a disabled message costs no formatting at all.
  void write(int level, const std::string& message) const;

 private:
  std::string name_;
  std::shared_ptr<LogNode> node_;
  int id_;
};

void setGlobalLevel(int level);
void setLevel(const std::string& name, int level);
void addWriter(std::shared_ptr<LogWriter> writer);

// "FATAL" ... "SPAM", or "[n]" for any other value.
std::string levelName(int level);

// The parsed form of a call site's format text, or nothing when the text
// itself does not parse.
std::optional<boost::format> parseFormat(const char* text);

template <typename... Args>
std::string formatMessage(const std::optional<boost::format>& parsed, const char* text, const Args&... args) {
  if (parsed) {
    try {
      boost::format message(*parsed);
      (void)(message % ... % args);
      return message.str();
    } catch (...) {
    }
  }
  return std::string(text) + " (log formatting error)";
}

}  // namespace log
}  // namespace quorvel

// Checks the level first, then formats with a format object parsed once per
// call site (thread-safe function-local static) and copied per message.
#define QLOG(logHandle, level, format, ...)                                                   \
  do {                                                                                        \
    const ::quorvel::log::Log& qlogHandle_ = (logHandle);                                     \
    const int qlogLevel_ = (level);                                                           \
    if (qlogHandle_.isEnabled(qlogLevel_)) {                                                  \
      static const auto qlogParsed_ = ::quorvel::log::parseFormat(format);                    \
      qlogHandle_.write(qlogLevel_,                                                           \
                        ::quorvel::log::formatMessage(qlogParsed_, format, ##__VA_ARGS__)); \
    }                                                                                         \
  } while (0)
