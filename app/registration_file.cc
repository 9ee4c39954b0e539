#include "app/registration_file.h"

#include <sys/stat.h>

#include <cstdio>
#include <strings.h>

#include "core/log.h"

namespace quorvel {
namespace ferrule {
namespace {

const log::Log Log("ferrule");

const Duration PollPeriod = Duration::seconds(1);

// isspace() in the POSIX locale, so "\r\n" line ends read correctly.
bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string trim(const std::string& text) {
  std::size_t begin = 0, end = text.size();
  while (begin < end && isBlank(text[begin])) ++begin;
  while (end > begin && isBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

// A registration file is a few lines: read at once.
bool readWholeFile(const std::string& fileName, std::string& content) {
  std::FILE* file = std::fopen(fileName.c_str(), "r");
  if (!file) return false;
  char block[512];
  std::size_t got;
  while ((got = std::fread(block, 1, sizeof block, file)) > 0) content.append(block, got);
  std::fclose(file);
  return true;
}

}  // namespace

std::string readDeviceKey(const std::string& fileName) {
  std::string content;
  if (!readWholeFile(fileName, content)) return std::string();
  for (std::size_t start = 0, end; start < content.size(); start = end + 1) {
    end = content.find('\n', start);
    if (end == std::string::npos) end = content.size();
    const std::string line = trim(content.substr(start, end - start));
    if (line.empty() || line[0] == '#') continue;
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
      QLOG(Log, log::Warning, "Invalid file syntax in %s", fileName);
      return std::string();
    }
    if (strcasecmp(trim(line.substr(0, equals)).c_str(), "DeviceRelayKey") == 0) {
      return trim(line.substr(equals + 1));
    }
  }
  QLOG(Log, log::Warning, "No DeviceRelayKey line found in file %s", fileName);
  return std::string();
}

Time fileModificationTime(const std::string& fileName) {
  struct stat info {};
  if (stat(fileName.c_str(), &info) != 0) return MinTime;
  return Time::fromUnixSeconds(static_cast<int32_t>(info.st_mtime));
}

RegistrationFileWatch::RegistrationFileWatch(std::shared_ptr<Reactor> reactor, const std::string& fileName,
                                             const KeyHandler& onNewKey)
    : reactor_(std::move(reactor)), fileName_(fileName), onNewKey_(onNewKey) {}

void RegistrationFileWatch::start() {
  reactor_->post(lifetime_, [this] { check(); });
}

void RegistrationFileWatch::check() {
  const Time modified = fileModificationTime(fileName_);
  if (modified != MinTime) {
    if (lastModified_ == MinTime || lastModified_ != modified) {
      char text[TimeTextSize];
      QLOG(Log, log::Notice, "Registration file modification is now %s", modified.toString(text, 0));
      const std::string key = readDeviceKey(fileName_);
      if (!key.empty() && key != currentKey_) {
        currentKey_ = key;
        onNewKey_(key);
      }
    }
    lastModified_ = modified;
    missingReported_ = false;
  } else if (!missingReported_) {
    QLOG(Log, log::Warning, "Registration file %s not found", fileName_);
    missingReported_ = true;
  }
  reactor_->scheduleAfter(lifetime_, PollPeriod, [this] { check(); });
}

}  // namespace ferrule
}  // namespace quorvel
