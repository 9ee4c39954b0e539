// Drives HttpForwarder through the real NetHttpClient against a real target
// server: each case hands one request (a test WebRequest) to the forwarder,
// waits until its answer is complete and the forwarder has cleaned up, and
// prints one JSON line with what came back. The calling test checks the
// lines and the server's own log. Log lines go to standard error.
//
// usage: forwarder_driver TARGET DOWN_TARGET
//   TARGET       host:port of the server
//   DOWN_TARGET  host:port where nothing listens
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/asio_reactor.h"
#include "core/log.h"
#include "core/stdout_writer.h"
#include "http/http_forwarder.h"
#include "http/net_http_client.h"
#include "net/asio_socket_factory.h"
#include "net/buffer_pool.h"
#include "net/name_resolver.h"
#include "tests/support/http_fakes.h"

using namespace quorvel;
using testing::FakeWebRequest;

namespace {

struct Case {
  std::string name;
  std::string head;             // start line and fields, each with "\r\n"
  std::string address;          // client address; empty: unknown
  bool down = false;            // through the forwarder whose target is down
};

uint32_t crc32(const std::string& data) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char b : data) crc = table[(crc ^ b) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

std::string json(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

class Driver {
 public:
  Driver(const std::string& target, const std::string& down, std::vector<Case> cases) : cases_(std::move(cases)) {
    pool_ = std::make_shared<BufferPool>(512, 0, 0);
    reactor_ = std::make_shared<AsioReactor>();
    client_ = std::make_shared<NetHttpClient>(reactor_, pool_, std::make_shared<AsioSocketFactory>(reactor_), nullptr,
                                              std::make_shared<NetNameResolver>(reactor_));
    forwarder_ = std::make_shared<HttpForwarder>(reactor_, client_, target);
    forwarder_->setForwardedProtocol("https");
    downForwarder_ = std::make_shared<HttpForwarder>(reactor_, client_, down);
  }

  int run() {
    reactor_->post(token_, [this] { startCase(); });
    reactor_->run();
    return failed_ ? 1 : 0;
  }

 private:
  void startCase() {
    if (index_ == cases_.size()) {
      reactor_->stop();
      return;
    }
    const Case& c = cases_[index_];
    request_ = std::make_shared<FakeWebRequest>();
    request_->headers_ = MessageHeaders::parseRequest(c.head.data(), c.head.size());
    request_->bodyComplete = true;
    request_->info.address = c.address;
    started_ = reactor_->timeProvider()->now();
    HttpForwarder& forwarder = c.down ? *downForwarder_ : *forwarder_;
    forwarder.handle(request_);
    reactor_->scheduleAfter(token_, Duration::milliseconds(5), [this] { check(); });
  }

  void check() {
    const Case& c = cases_[index_];
    const Duration elapsed = reactor_->timeProvider()->now() - started_;
    std::shared_ptr<testing::FakeWebResponse> response = request_->response;
    const bool answered = response && (response->sends > 0 || response->body.ended());
    const bool timedOut = elapsed >= Duration::seconds(30);
    if (!(answered && forwarder_->pendingCount() == 0 && downForwarder_->pendingCount() == 0) && !timedOut) {
      reactor_->scheduleAfter(token_, Duration::milliseconds(5), [this] { check(); });
      return;
    }
    report(c, timedOut);
    ++index_;
    request_.reset();
    startCase();
  }

  void report(const Case& c, bool timedOut) {
    std::shared_ptr<testing::FakeWebResponse> response = request_->response;
    const std::string body = response ? response->bodyText() : std::string();
    std::printf(
        "{\"case\": %s, \"timedOut\": %s, \"status\": %u, \"head\": %s, \"bodySize\": %zu, \"crc\": %u, "
        "\"body\": %s, \"sends\": %d, \"starts\": %d, \"ended\": %s}\n",
        json(c.name).c_str(), timedOut ? "true" : "false", response ? response->headers_.statusCode() : 0u,
        json(response ? response->wire() : "").c_str(), body.size(), crc32(body),
        json(body.size() < 8192 ? body : body.substr(0, 200)).c_str(), response ? response->sends : 0, response ? response->starts : 0,
        response && response->body.ended() ? "true" : "false");
    std::fflush(stdout);
    if (timedOut) failed_ = true;
  }

  std::vector<Case> cases_;
  std::size_t index_ = 0;
  // Before the reactor: reads still pending on pooled connections give their
  // buffers back when the reactor goes.
  std::shared_ptr<BufferPool> pool_;
  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<NetHttpClient> client_;
  std::shared_ptr<HttpForwarder> forwarder_;
  std::shared_ptr<HttpForwarder> downForwarder_;
  std::shared_ptr<FakeWebRequest> request_;
  Time started_;
  bool failed_ = false;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: forwarder_driver TARGET DOWN_TARGET\n");
    return 2;
  }
  log::addWriter(std::make_shared<log::StdoutWriter>(stderr));
  log::setLevel("httpfwd", log::Debug);

  std::vector<Case> cases = {
      {"host", "GET /hello.txt HTTP/1.1\r\nHost: cam.example\r\nX-Forwarded-For: 198.51.100.4\r\n", "192.0.2.7"},
      {"nohost", "GET /hello.txt HTTP/1.1\r\nX-Forwarded-For: 198.51.100.4\r\nX-Forwarded-Proto: http\r\n", ""},
      {"head", "HEAD /hello.txt HTTP/1.1\r\nHost: cam.example\r\n", "192.0.2.7"},
      {"nocontent", "GET /nocontent HTTP/1.1\r\nHost: cam.example\r\n", "192.0.2.7"},
      {"missing", "GET /missing HTTP/1.1\r\nHost: cam.example\r\n", "192.0.2.7"},
      {"down", "GET /hello.txt HTTP/1.1\r\nHost: cam.example\r\n", "192.0.2.7", true},
  };
  Driver driver(argv[1], argv[2], cases);
  return driver.run();
}
