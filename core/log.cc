#include "core/log.h"

#include <algorithm>
#include <forward_list>
#include <map>
#include <mutex>
#include <string_view>

#include "core/log_format.h"
#include "core/time_provider.h"

namespace quorvel {
namespace log {
namespace {

// The root and the name registry come into being on first use, which may be
// during static initialisation of another unit's log handle.
struct Registry {
  std::shared_ptr<LogNode> root = std::make_shared<LogNode>();
  std::map<std::string, std::shared_ptr<LogNode>> nodes;
  std::mutex mutex;  // handles are built from several units' static initialisers

  Registry() { root->threshold = Notice; }

  void setThreshold(LogNode& node, int level) {
    std::lock_guard<std::mutex> lock(mutex);
    node.threshold = level;
    int highest = root->threshold;
    for (const auto& entry : nodes) highest = std::max(highest, entry.second->threshold);
    highestThreshold.store(highest, std::memory_order_relaxed);
  }

  std::shared_ptr<LogNode> node(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex);
    auto& node = nodes[name];
    if (!node) {
      node = std::make_shared<LogNode>();
      node->parent = root;
    }
    return node;
  }
};

Registry& registry() {
  static Registry instance;
  return instance;
}

}  // namespace

std::atomic<int> highestThreshold{Notice};

Log::Log(const std::string& name) : Log(name, 0) {}

Log::Log(const std::string& name, int id) : name_(name), node_(registry().node(name)), id_(id) {}

bool Log::isEnabledByNodes(int level) const {
  for (const LogNode* node = node_.get(); node; node = node->parent.get()) {
    if (node->threshold != 0) return node->threshold >= level;
  }
  return false;
}

void Log::write(int level, const std::string& message) const {
  const Time now = SystemTimeProvider::instance().now();
  for (const LogNode* node = node_.get(); node; node = node->parent.get()) {
    for (const auto& writer : node->writers) {
      try {
        writer->write(now, *this, level, id_, message);
      } catch (...) {
        // A broken writer must not stop the others or reach the caller.
      }
    }
  }
}

void setGlobalLevel(int level) { registry().setThreshold(*registry().root, level); }

void setLevel(const std::string& name, int level) {
  const std::shared_ptr<LogNode> node = registry().node(name);
  registry().setThreshold(*node, level);
}

void addWriter(std::shared_ptr<LogWriter> writer) { registry().root->writers.push_back(std::move(writer)); }

std::string levelName(int level) {
  static const char* const names[] = {"FATAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG", "SPAM"};
  if (level >= Fatal && level <= Spam) return names[level - 1];
  return "[" + std::to_string(level) + "]";
}

const ParsedFormat* parseFormat(const char* text) {
  // Kept for the life of the process and never destroyed: call sites' statics
  // point here, and a line may be logged while other statics are destroyed.
  struct Store {
    std::mutex mutex;  // call sites are first reached from any thread
    std::forward_list<ParsedFormat> formats;
  };
  static Store* const store = new Store;
  std::optional<ParsedFormat> parsed = ParsedFormat::parse(text);
  if (!parsed) return nullptr;
  std::lock_guard<std::mutex> lock(store->mutex);
  return &store->formats.emplace_front(std::move(*parsed));
}

std::string formatMessage(const ParsedFormat* parsed, const char* text, std::initializer_list<LogArg> args) {
  std::string message;
  if (parsed && parsed->format(args, message)) return message;
  return std::string(text) + " (log formatting error)";
}

void Log::writeFormatted(int level, const ParsedFormat* parsed, const char* text,
                         std::initializer_list<LogArg> args) const {
  write(level, formatMessage(parsed, text, args));
}

}  // namespace log
}  // namespace quorvel
