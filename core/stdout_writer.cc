#include "core/stdout_writer.h"

namespace quorvel {
namespace log {

void StdoutWriter::write(Time time, const Log& log, int level, int id, const std::string& message) {
  char stamp[TimeTextSize];
  time.toString(stamp, 1);
  const std::string level_text = levelName(level);

  std::lock_guard<std::mutex> lock(mutex_);
  std::fprintf(out_, "%s %s ", stamp, level_text.c_str());
  if (id > 0) std::fprintf(out_, "id: %d ", id);
  if (!log.name().empty()) std::fprintf(out_, "[%s] ", log.name().c_str());
  std::fwrite(message.data(), 1, message.size(), out_);
  std::fputc('\n', out_);
  std::fflush(out_);
}

}  // namespace log
}  // namespace quorvel
