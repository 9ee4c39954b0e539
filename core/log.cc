#include "core/log.h"

#include <forward_list>
#include <map>
#include <mutex>
#include <string_view>

#include <boost/format.hpp>

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

Log::Log(const std::string& name) : Log(name, 0) {}

Log::Log(const std::string& name, int id) : name_(name), node_(registry().node(name)), id_(id) {}

bool Log::isEnabled(int level) const {
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

void setGlobalLevel(int level) { registry().root->threshold = level; }

void setLevel(const std::string& name, int level) { registry().node(name)->threshold = level; }

void addWriter(std::shared_ptr<LogWriter> writer) { registry().root->writers.push_back(std::move(writer)); }

std::string levelName(int level) {
  static const char* const names[] = {"FATAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG", "SPAM"};
  if (level >= Fatal && level <= Spam) return names[level - 1];
  return "[" + std::to_string(level) + "]";
}

// Feeds each erased argument to Boost.Format as the type it had at the call
// site: one instantiation of the formatter per kind for the whole program.
class Formatter {
 public:
  static void feed(boost::format& message, const LogArg& arg) {
    const auto& v = arg.value_;
    switch (arg.kind_) {
      case LogArg::Kind::Bool: message % v.b; break;
      case LogArg::Kind::Char: message % v.c; break;
      case LogArg::Kind::SignedChar: message % v.sc; break;
      case LogArg::Kind::UnsignedChar: message % v.uc; break;
      case LogArg::Kind::Short: message % v.s; break;
      case LogArg::Kind::UnsignedShort: message % v.us; break;
      case LogArg::Kind::Int: message % v.i; break;
      case LogArg::Kind::Unsigned: message % v.u; break;
      case LogArg::Kind::Long: message % v.l; break;
      case LogArg::Kind::UnsignedLong: message % v.ul; break;
      case LogArg::Kind::LongLong: message % v.ll; break;
      case LogArg::Kind::UnsignedLongLong: message % v.ull; break;
      case LogArg::Kind::Double: message % v.d; break;
      case LogArg::Kind::Text: message % std::string_view(arg.text_.data, arg.text_.size); break;
    }
  }
};

class ParsedFormat {
 public:
  explicit ParsedFormat(const char* text) : format(text) {}
  const boost::format format;
};

const ParsedFormat* parseFormat(const char* text) {
  // Kept for the life of the process and never destroyed: call sites' statics
  // point here, and a line may be logged while other statics are destroyed.
  struct Store {
    std::mutex mutex;  // call sites are first reached from any thread
    std::forward_list<ParsedFormat> formats;
  };
  static Store* const store = new Store;
  try {
    ParsedFormat parsed(text);
    std::lock_guard<std::mutex> lock(store->mutex);
    return &store->formats.emplace_front(std::move(parsed));
  } catch (...) {
    return nullptr;
  }
}

std::string formatMessage(const ParsedFormat* parsed, const char* text, std::initializer_list<LogArg> args) {
  if (parsed) {
    try {
      boost::format message(parsed->format);
      for (const LogArg& arg : args) Formatter::feed(message, arg);
      return message.str();
    } catch (...) {
    }
  }
  return std::string(text) + " (log formatting error)";
}

void Log::writeFormatted(int level, const ParsedFormat* parsed, const char* text,
                         std::initializer_list<LogArg> args) const {
  write(level, formatMessage(parsed, text, args));
}

}  // namespace log
}  // namespace quorvel
