#pragma once

#include <cstdio>
#include <mutex>

#include "core/log.h"

namespace quorvel {
namespace log {

// One line per message: "<UTC time with ms> <LEVEL> [id: n ][[name] ]text".
class StdoutWriter : public LogWriter {
 public:
  explicit StdoutWriter(std::FILE* out = stdout) : out_(out) {}

  void write(Time time, const Log& log, int level, int id, const std::string& message) override;

 private:
  std::FILE* out_;
  std::mutex mutex_;  // whole lines, never interleaved between threads
};

}  // namespace log
}  // namespace quorvel
