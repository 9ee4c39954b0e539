// Runs requests through NetHttpClient against a real server and prints one
// JSON line per request (status, error code, body size and CRC-32, framing
// fields, times) and a summary line (peak RSS, pool buffers). Log lines go to
// standard error.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/asio_reactor.h"
#include "core/log.h"
#include "core/stdout_writer.h"
#include "http/net_http_client.h"
#include "http/url.h"
#include "net/asio_socket_factory.h"
#include "net/asio_ssl_socket_factory.h"
#include "net/buffer_pool.h"
#include "net/name_resolver.h"

using namespace quorvel;

namespace {

struct Options {
  std::vector<std::string> urls;  // request i goes to urls[i % count]
  std::string method = "GET";
  bool close = false;
  unsigned parallel = 1;
  unsigned repeat = 1;
  double rate = 0;  // bytes per second the consumer takes; 0: as fast as it comes
  int level = log::Notice;
};

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: http_client_driver [-m METHOD] [--close] [-p PARALLEL] [-n REPEAT]\n"
               "       [--rate BYTES_PER_S] [-l LEVEL] URL...\n");
  std::exit(2);
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (++i >= argc) usage();
      return argv[i];
    };
    if (a == "-m") {
      o.method = next();
    } else if (a == "--close") {
      o.close = true;
    } else if (a == "-p") {
      o.parallel = std::stoul(next());
    } else if (a == "-n") {
      o.repeat = std::stoul(next());
    } else if (a == "--rate") {
      o.rate = std::stod(next());
    } else if (a == "-l") {
      o.level = std::stoi(next());
    } else if (!a.empty() && a[0] != '-') {
      o.urls.push_back(a);
    } else {
      usage();
    }
  }
  if (o.urls.empty() || o.parallel == 0) usage();
  return o;
}

uint32_t crcUpdate(uint32_t crc, const uint8_t* data, std::size_t size) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = c & 1 ? 0xedb88320u ^ (c >> 1) : c >> 1;
      t[n] = c;
    }
    return t;
  }();
  crc = ~crc;
  for (std::size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xff] ^ (crc >> 8);
  return ~crc;
}

// A "kB" figure of /proc/self/status (getrusage's peak would include what a
// parent had before exec).
long statusField(const char* name) {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return -1;
  char line[256];
  long value = -1;
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, name, std::strlen(name)) == 0) value = std::atol(line + std::strlen(name));
  }
  std::fclose(f);
  return value;
}

std::string jsonEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) continue;
    out += c;
  }
  return out;
}

class Driver;

// One request and what became of it.
struct Exchange : std::enable_shared_from_this<Exchange> {
  Driver* driver = nullptr;
  unsigned index = 0;
  std::shared_ptr<WebClientRequest> request;
  std::shared_ptr<WebClientResponse> response;
  std::shared_ptr<BodySink> sink = std::make_shared<BodySink>(1);
  uint32_t status = 0;
  std::string cl, connection;
  std::size_t bytes = 0;
  uint32_t crc = 0;
  bool ended = false;
  bool done = false;
  boost::system::error_code code;
  double headAt = 0, endAt = 0;
  bool waitingForRate = false;
  bool reported = false;
  LifetimeToken token = makeLifetimeToken();

  void start();
  void onResponse(const std::shared_ptr<WebClientResponse>& r);
  void onEnd(const boost::system::error_code& c);
  void drain();
  void maybeFinish();
};

class Driver {
 public:
  Driver(Options options) : o(std::move(options)) {
    pool = std::make_shared<BufferPool>(512, 0, 0);
    reactor = std::make_shared<AsioReactor>();
    resolver = std::make_shared<NetNameResolver>(reactor);
    client = std::make_shared<NetHttpClient>(reactor, pool, std::make_shared<AsioSocketFactory>(reactor),
                                             std::make_shared<AsioSslSocketFactory>(reactor, false), resolver,
                                             0);
    start = now();
  }

  double now() const { return static_cast<double>(reactor->timeProvider()->now().count()) / 1e6; }

  int run() {
    startRound();
    reactor->run();
    std::printf("{\"summary\": 1, \"failed\": %u, \"max_rss_kb\": %ld, \"pool_buffers\": %u}\n", failed,
                statusField("VmHWM:"), pool->totalBuffers());
    return failed ? 1 : 0;
  }

  void startRound() {
    exchanges.clear();
    remaining = o.parallel;
    for (unsigned i = 0; i < o.parallel; ++i) {
      auto e = std::make_shared<Exchange>();
      e->driver = this;
      e->index = round * o.parallel + i;
      exchanges.push_back(e);
    }
    for (auto& e : exchanges) e->start();
  }

  void finished(Exchange& e) {
    if (e.code) ++failed;
    std::printf(
        "{\"i\": %u, \"status\": %u, \"code\": %d, \"text\": \"%s\", \"bytes\": %zu, \"crc\": %u, \"ended\": %s, "
        "\"cl\": \"%s\", \"connection\": \"%s\", \"head_at\": %.3f, \"end_at\": %.3f}\n",
        e.index, e.status, e.code.value(), jsonEscape(e.code.message()).c_str(), e.bytes, e.crc,
        e.ended ? "true" : "false", jsonEscape(e.cl).c_str(), jsonEscape(e.connection).c_str(), e.headAt, e.endAt);
    std::fflush(stdout);
    if (--remaining > 0) return;
    // Not from inside the request's own callback.
    reactor->post(token, [this]() {
      if (++round < o.repeat) {
        startRound();
      } else {
        exchanges.clear();
        reactor->stop();
      }
    });
  }

  Options o;
  // Before the reactor: reads still queued in its loop hold the pool's buffers.
  std::shared_ptr<BufferPool> pool;
  std::shared_ptr<AsioReactor> reactor;
  std::shared_ptr<NetNameResolver> resolver;
  std::shared_ptr<NetHttpClient> client;
  std::vector<std::shared_ptr<Exchange>> exchanges;
  unsigned round = 0;
  unsigned remaining = 0;
  unsigned failed = 0;
  double start = 0;
  LifetimeToken token = makeLifetimeToken();
};

void Exchange::start() {
  const Options& o = driver->o;
  const std::string& url = o.urls[index % o.urls.size()];
  const std::string authority = Url::authority(url);
  std::string path = Url::path(url);
  if (path.empty()) path = "/";
  request = driver->client->createRequest(o.method, Url::scheme(url), authority, authority, path);
  std::weak_ptr<Exchange> self = shared_from_this();
  request->setResponseHandler([self](const std::shared_ptr<WebClientResponse>& r) {
    if (auto e = self.lock()) e->onResponse(r);
  });
  request->setErrorHandler([self](const boost::system::error_code& c) {
    if (auto e = self.lock()) e->onEnd(c);
  });
  if (o.close) request->setCloseConnection();
  request->send(nullptr, 0);
}

void Exchange::onResponse(const std::shared_ptr<WebClientResponse>& r) {
  response = r;
  headAt = driver->now() - driver->start;
  const MessageHeaders& h = r->headers();
  status = h.statusCode();
  auto field = h.find(HttpHeader::ContentLength);
  if (field != h.end()) cl = field->value.str();
  field = h.find(HttpHeader::Connection);
  if (field != h.end()) connection = field->value.str();
  std::weak_ptr<Exchange> self = shared_from_this();
  sink->setReadyHandler([self]() {
    if (auto e = self.lock()) e->drain();
  });
  r->body().connect(sink);
}

// Takes body pieces, no faster than the rate asked for.
void Exchange::drain() {
  if (waitingForRate) return;
  while (sink->hasItem()) {
    if (driver->o.rate > 0) {
      const double due = driver->start + bytes / driver->o.rate;
      const double wait = due - driver->now();
      if (wait > 0.0005) {
        waitingForRate = true;
        std::weak_ptr<Exchange> self = shared_from_this();
        driver->reactor->scheduleAfter(token, Duration::microseconds(static_cast<int64_t>(wait * 1e6)), [self]() {
          if (auto e = self.lock()) {
            e->waitingForRate = false;
            e->drain();
          }
        });
        return;
      }
    }
    BufferChainPtr piece = sink->take();
    if (!piece) continue;
    for (auto it = piece.chain().begin(); it != piece.chain().end(); it.nextSegment()) {
      crc = crcUpdate(crc, it.data(), it.segmentSize());
      bytes += it.segmentSize();
    }
  }
  maybeFinish();
}

void Exchange::onEnd(const boost::system::error_code& c) {
  code = c;
  done = true;
  maybeFinish();
}

// Reported once the outcome is in and, on success, the body has been taken.
void Exchange::maybeFinish() {
  if (!done || reported) return;
  if (!code && response && !sink->isEnded()) return;
  reported = true;
  endAt = driver->now() - driver->start;
  ended = sink->isEnded();
  driver->finished(*this);
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parse(argc, argv);
  log::setGlobalLevel(log::Notice);
  log::setLevel("httpclient", options.level);
  log::setLevel("httppool", options.level);
  log::setLevel("chunkedparser", std::min(options.level, static_cast<int>(log::Notice)));
  log::addWriter(std::make_shared<log::StdoutWriter>(stderr));
  Driver driver(std::move(options));
  return driver.run();
}
