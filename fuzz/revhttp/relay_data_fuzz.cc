#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/buffer_pool.h"
#include "revhttp/reverse_http_client.h"
#include "tests/support/manual_reactor.h"
#include "tests/support/http_fakes.h"

namespace {

using namespace quorvel;
using namespace quorvel::testing;

// Takes every request except those with the method "X", answers at once and
// keeps what it saw.
class Handler : public WebRequestHandler {
 public:
  bool handle(const std::shared_ptr<WebRequest>& request) override {
    if (request->headers().method() == StringSection("X")) return false;
    head.assign(request->headers().data(), request->headers().size());
    request->setBodyDataHandler([this](const BufferChainPtr& piece, bool end) {
      if (end) {
        ++ends;
      } else {
        body += pieceText(piece);
      }
    });
    request->createResponse(HttpStatus::Ok)->send("ok", 2);
    last = request;
    return true;
  }
  std::shared_ptr<WebRequest> last;
  std::string head, body;
  int ends = 0;
};

struct Outcome {
  std::string head, body, reply;
  int ends = 0;
  bool active = false;  // false when a malformed chunked body ended the request
  bool operator!=(const Outcome& o) const {
    return head != o.head || body != o.body || reply != o.reply || ends != o.ends || active != o.active;
  }
};

Outcome relay(const std::shared_ptr<BufferPool>& pool, const uint8_t* data, std::size_t size,
              const std::vector<std::size_t>& pieces) {
  auto reactor = std::make_shared<ManualReactor>();
  auto http = std::make_shared<FakeHttpClient>();
  auto handler = std::make_shared<Handler>();
  auto client = std::make_shared<ReverseHttpClient>(reactor, pool, http, "https://k.relay.test/rhttp/register", "k");
  client->setRequestHandler(handler);
  client->start();
  http->last().respond(201, "Created", {{"Link", "</rhttp/relay/k/1>; rel=\"first\""}});
  std::shared_ptr<FakeClientRequest> get = http->requests.back();
  get->respond(200, "OK", {{"Content-Type", "message/http"}, {"Link", "</rhttp/relay/k/2>; rel=\"next\""}});
  std::size_t offset = 0;
  for (std::size_t i = 0; i <= pieces.size() && offset < size; ++i) {
    const std::size_t piece = i < pieces.size() ? std::min(pieces[i], size - offset) : size - offset;
    get->response->put(std::string(reinterpret_cast<const char*>(data) + offset, piece));
    offset += piece;
  }
  get->response->end();
  get->complete();
  Outcome outcome{handler->head, handler->body, std::string(), handler->ends,
                  handler->last && handler->last->isActive()};
  for (const std::shared_ptr<FakeClientRequest>& request : http->requests) {
    if (request->method == "POST" && request->path != "/rhttp/register") {
      outcome.reply = request->sentBody + request->body.text();
    }
  }
  // Everything the client held goes back to the pool.
  client.reset();
  reactor->advance(Duration::seconds(1));
  return outcome;
}

}  // namespace

// The first bytes give piece sizes (until a zero byte); the rest is the
// relayed message. Whatever the split, the handler must see the same head,
// body and end, and the same answer must be posted; no buffer may be kept.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>(64, 0, 0);
  std::vector<std::size_t> pieces;
  std::size_t i = 0;
  while (i < size && data[i] != 0 && pieces.size() < 64) pieces.push_back(data[i++] * 17u);
  if (i < size) ++i;
  const Outcome whole = relay(pool, data + i, size - i, {});
  const Outcome split = relay(pool, data + i, size - i, pieces);
  if (whole.active && split.active) {
    if (whole != split) __builtin_trap();
  } else {
    // A chunk-size line held back across pieces may fail earlier on its
    // length limit: what was passed on is then a prefix of the whole body.
    if (whole.head != split.head) __builtin_trap();
    const std::string& shorter = whole.body.size() < split.body.size() ? whole.body : split.body;
    const std::string& longer = whole.body.size() < split.body.size() ? split.body : whole.body;
    if (longer.compare(0, shorter.size(), shorter) != 0) __builtin_trap();
  }
  if (pool->freeBuffers() != pool->totalBuffers()) __builtin_trap();
  if (fakeBufferPool().freeBuffers() != fakeBufferPool().totalBuffers()) __builtin_trap();
  return 0;
}
