// NetHttpClient beside a Boost.Beast client on the same URLs of a local
// server (FERRULE_BENCH_TARGET=127.0.0.1:PORT, serving /1k.bin and
// /100m.bin): 1 KB requests one after another on one kept connection and 16
// at a time, and a 100 MB body. Both run single-threaded on one event loop.
// run_bench.py starts nginx and prints medians and ratios.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "core/asio_reactor.h"
#include "http/net_http_client.h"
#include "net/asio_socket_factory.h"
#include "net/buffer_pool.h"
#include "net/name_resolver.h"

namespace beast = boost::beast;
namespace http = boost::beast::http;
using tcp = boost::asio::ip::tcp;

namespace {

std::string target() {
  const char* t = std::getenv("FERRULE_BENCH_TARGET");
  return t ? t : "127.0.0.1:8080";
}

long rssKb() {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return -1;
  char line[256];
  long value = -1;
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, "VmRSS:", 6) == 0) value = std::atol(line + 6);
  }
  std::fclose(f);
  return value;
}

// ---- NetHttpClient

struct Ferrule {
  std::shared_ptr<quorvel::BufferPool> pool = std::make_shared<quorvel::BufferPool>(512, 0, 0);
  std::shared_ptr<quorvel::AsioReactor> reactor = std::make_shared<quorvel::AsioReactor>();
  std::shared_ptr<quorvel::NetNameResolver> resolver = std::make_shared<quorvel::NetNameResolver>(reactor);
  std::shared_ptr<quorvel::NetHttpClient> client = std::make_shared<quorvel::NetHttpClient>(
      reactor, pool, std::make_shared<quorvel::AsioSocketFactory>(reactor), nullptr, resolver, 0);
  quorvel::LifetimeToken token = quorvel::makeLifetimeToken();
  std::string host = target();

  // One request stream: the next request starts when the previous one ends.
  struct Lane : std::enable_shared_from_this<Lane> {
    Ferrule* owner = nullptr;
    std::string path;
    std::shared_ptr<quorvel::WebClientRequest> request;
    std::size_t* remaining = nullptr;
    std::size_t* running = nullptr;
    std::size_t* bodyBytes = nullptr;
    bool* failed = nullptr;

    void next() {
      if (*remaining == 0) {
        if (--*running == 0) owner->reactor->stop();
        return;
      }
      --*remaining;
      request = owner->client->createRequest("GET", "http", owner->host, owner->host, path);
      std::weak_ptr<Lane> self = shared_from_this();
      // Pieces are counted and dropped as they come: no copy of the body.
      request->setBodyDataHandler([self](const quorvel::BufferChainPtr& piece, bool end) {
        auto lane = self.lock();
        if (lane && !end && piece) *lane->bodyBytes += piece.chain().size();
      });
      request->setErrorHandler([self](const boost::system::error_code& code) {
        auto lane = self.lock();
        if (!lane) return;
        if (code) *lane->failed = true;
        // Later: the request is still on the stack.
        lane->owner->reactor->post(lane->owner->token, [self]() {
          if (auto l = self.lock()) l->next();
        });
      });
      request->send(nullptr, 0);
    }
  };

  // Returns the body bytes received.
  std::size_t run(const std::string& path, std::size_t count, std::size_t parallel, bool& failed) {
    std::size_t remaining = count, running = parallel, bytes = 0;
    std::vector<std::shared_ptr<Lane>> lanes;
    for (std::size_t i = 0; i < parallel; ++i) {
      auto lane = std::make_shared<Lane>();
      lane->owner = this;
      lane->path = path;
      lane->remaining = &remaining;
      lane->running = &running;
      lane->bodyBytes = &bytes;
      lane->failed = &failed;
      lanes.push_back(lane);
    }
    for (auto& lane : lanes) reactor->post(token, [lane]() { lane->next(); });
    reactor->run();
    return bytes;
  }
};

// ---- Beast

struct BeastClient {
  boost::asio::io_context io;
  tcp::endpoint endpoint;

  BeastClient() {
    const std::string t = target();
    const std::size_t colon = t.rfind(':');
    endpoint = tcp::endpoint(boost::asio::ip::make_address(t.substr(0, colon)),
                             static_cast<unsigned short>(std::stoi(t.substr(colon + 1))));
  }

  struct Session : std::enable_shared_from_this<Session> {
    BeastClient* owner;
    tcp::socket socket;
    beast::flat_buffer buffer;
    http::request<http::empty_body> request;
    std::unique_ptr<http::response_parser<http::buffer_body>> parser;
    char chunk[32768];
    std::size_t* remaining;
    std::size_t* bytes;
    bool* failed;

    Session(BeastClient* o, const std::string& path) : owner(o), socket(o->io) {
      request = http::request<http::empty_body>(http::verb::get, path, 11);
      request.set(http::field::host, target());
    }
    void start() {
      socket.async_connect(owner->endpoint, [self = shared_from_this()](beast::error_code ec) {
        if (ec) return self->fail(ec);
        self->next();
      });
    }
    void fail(const beast::error_code& ec) {
      if (!*failed) std::fprintf(stderr, "Beast client: %s\n", ec.message().c_str());
      *failed = true;
    }
    void next() {
      if (*remaining == 0) return;
      --*remaining;
      http::async_write(socket, request, [self = shared_from_this()](beast::error_code ec, std::size_t) {
        if (ec) return self->fail(ec);
        self->parser = std::make_unique<http::response_parser<http::buffer_body>>();
        self->parser->body_limit(std::numeric_limits<std::uint64_t>::max());
        self->readSome();
      });
    }
    // The body goes through a fixed buffer, as a streaming consumer would take it.
    void readSome() {
      parser->get().body().data = chunk;
      parser->get().body().size = sizeof chunk;
      http::async_read_some(socket, buffer, *parser, [self = shared_from_this()](beast::error_code ec, std::size_t) {
        if (ec == http::error::need_buffer) ec = {};
        if (ec) return self->fail(ec);
        *self->bytes += sizeof self->chunk - self->parser->get().body().size;
        if (self->parser->is_done()) return self->next();
        self->readSome();
      });
    }
  };

  std::size_t run(const std::string& path, std::size_t count, std::size_t parallel, bool& failed) {
    std::size_t remaining = count, bytes = 0;
    for (std::size_t i = 0; i < parallel; ++i) {
      auto s = std::make_shared<Session>(this, path);
      s->remaining = &remaining;
      s->bytes = &bytes;
      s->failed = &failed;
      s->start();
    }
    io.restart();
    io.run();
    return bytes;
  }
};

template <typename Client>
void fetch(benchmark::State& state, const char* path, std::size_t batch, std::size_t parallel) {
  Client client;
  bool failed = false;
  std::size_t bytes = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    bytes += client.run(path, batch, parallel, failed);
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  if (failed) state.SkipWithError("a request failed");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * batch));
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void BM_Sequential1K_Ferrule(benchmark::State& s) { fetch<Ferrule>(s, "/1k.bin", 2000, 1); }
void BM_Sequential1K_Beast(benchmark::State& s) { fetch<BeastClient>(s, "/1k.bin", 2000, 1); }
void BM_Parallel16x1K_Ferrule(benchmark::State& s) { fetch<Ferrule>(s, "/1k.bin", 4000, 16); }
void BM_Parallel16x1K_Beast(benchmark::State& s) { fetch<BeastClient>(s, "/1k.bin", 4000, 16); }
void BM_Body100M_Ferrule(benchmark::State& s) { fetch<Ferrule>(s, "/100m.bin", 1, 1); }
void BM_Body100M_Beast(benchmark::State& s) { fetch<BeastClient>(s, "/100m.bin", 1, 1); }

BENCHMARK(BM_Sequential1K_Ferrule)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Sequential1K_Beast)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Parallel16x1K_Ferrule)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Parallel16x1K_Beast)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Body100M_Ferrule)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Body100M_Beast)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// Resident size after 1 000 and after 100 000 sequential requests: flat when
// nothing grows per request.
void BM_Rss_Ferrule(benchmark::State& state) {
  Ferrule client;
  bool failed = false;
  for (auto _ : state) {
    client.run("/1k.bin", 1000, 1, failed);
    state.counters["rss_kb_after_1k"] = static_cast<double>(rssKb());
    client.run("/1k.bin", 99000, 1, failed);
    state.counters["rss_kb_after_100k"] = static_cast<double>(rssKb());
    state.counters["pool_buffers"] = static_cast<double>(client.pool->totalBuffers());
  }
  if (failed) state.SkipWithError("a request failed");
}
BENCHMARK(BM_Rss_Ferrule)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
