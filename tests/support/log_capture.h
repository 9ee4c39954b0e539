#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/log.h"

namespace quorvel {
namespace testing {

// Records every line written below the root, for assertions on log output.
class LogCapture : public LogWriter {
 public:
  struct Line {
    std::string log;
    int level;
    std::string message;
  };

  // Attaches a fresh capture to the root; returns it for inspection. Captures
  // stay attached for the life of the test binary, so each one is cleared by
  // the next call to clear().
  static std::shared_ptr<LogCapture> install() {
    static std::shared_ptr<LogCapture> capture = [] {
      auto created = std::make_shared<LogCapture>();
      log::addWriter(created);
      return created;
    }();
    capture->clear();
    return capture;
  }

  void write(Time, const log::Log& log, int level, int, const std::string& message) override {
    lines_.push_back({log.name(), level, message});
  }

  void clear() { lines_.clear(); }
  const std::vector<Line>& lines() const { return lines_; }

  bool contains(const std::string& message) const {
    for (const Line& line : lines_) {
      if (line.message == message) return true;
    }
    return false;
  }

  std::size_t count(const std::string& message) const {
    std::size_t n = 0;
    for (const Line& line : lines_) n += line.message == message;
    return n;
  }

 private:
  std::vector<Line> lines_;
};

}  // namespace testing
}  // namespace quorvel
