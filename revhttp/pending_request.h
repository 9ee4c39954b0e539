#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "http/chunk_framing.h"
#include "http/encoding_parser.h"
#include "revhttp/reverse_http_client.h"
#include "revhttp/target_exchange.h"

namespace quorvel {

// One relayed request in progress. Objects are recycled: each use gets a new
// generation, and every callback bound to a use carries it, so callbacks of
// an earlier use (or of a use that is done) find a mismatch and do nothing.
struct ReverseHttpClient::PendingRequest : std::enable_shared_from_this<PendingRequest> {
  // Clears everything a use left behind; the object may then be reused.
  void reset() {
    generation = 0;
    name.clear();
    relaySerial = 0;
    relayRequest.reset();
    relayResponse.reset();
    relayBody.reset();
    headFilled = 0;
    headParsed = relayEnded = bodyFollows = taken = false;
    chunked.reset();
    targetRequest.reset();
    targetResponse.reset();
    replyRequest.reset();
    replySource.reset();
    simpleBody.clear();
    replyBody = ReplyBody::Plain;
    replyFramer = ChunkFramer();
    replyComplete = pumping = pumpAgain = false;
  }

  bool isActive(uint64_t use) const { return generation != 0 && generation == use; }

  uint64_t generation = 0;  // 0 while not in use (done or free)
  std::string name;         // the relay URL the request came from
  uint64_t relaySerial = 0;
  ClientRequestPtr relayRequest;
  ClientResponsePtr relayResponse;
  std::shared_ptr<BodySink> relayBody;

  std::array<char, HeadBufferSize> head;
  std::size_t headFilled = 0;
  bool headParsed = false;
  bool relayEnded = false;
  bool bodyFollows = false;
  bool taken = false;
  // Handlers get the body without its chunked framing, as from any client.
  std::unique_ptr<ChunkedEncodingParser> chunked;

  std::shared_ptr<TargetRequest> targetRequest;
  std::shared_ptr<TargetResponse> targetResponse;

  ClientRequestPtr replyRequest;
  std::shared_ptr<BodySource> replySource;
  std::string simpleBody;
  // How the target response's body goes into the reply: the body we are
  // handed is plain payload, so a head that says chunked needs its framing
  // put back; a response that has no body gets nothing after its head.
  enum class ReplyBody { Plain, Chunked, None };
  ReplyBody replyBody = ReplyBody::Plain;
  ChunkFramer replyFramer;
  bool replyComplete = false;
  bool pumping = false;
  bool pumpAgain = false;
};

// How callbacks reach a pending request: both the client and the object may
// be gone, and the object may have moved on to another use.
struct ReverseHttpClient::PendingHandle {
  std::weak_ptr<ReverseHttpClient> client;
  std::weak_ptr<PendingRequest> pending;
  uint64_t generation = 0;

  // Calls f(client, pending) only while this use is still in progress.
  template <typename F>
  void with(F&& f) const {
    std::shared_ptr<ReverseHttpClient> owner = client.lock();
    std::shared_ptr<PendingRequest> target = pending.lock();
    if (owner && target && target->isActive(generation)) f(*owner, *target);
  }
  bool isActive() const {
    std::shared_ptr<PendingRequest> target = pending.lock();
    return !client.expired() && target && target->isActive(generation);
  }
};

}  // namespace quorvel
