#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "http/chunk_framing.h"
#include "http/http_client.h"
#include "http/http_names.h"
#include "http/message_headers.h"
#include "http/web_client.h"
#include "revhttp/client_calls.h"
#include "revhttp/exchange_link.h"

namespace quorvel {

// The POST that carries a relayed request's answer back to the relay: the
// target response's head with its first data in one buffer, then its body
// as the upload can take it. Part of one exchange (recycled with it), whose
// link hears how the upload ends. Log lines begin with the exchange's name.
class ReplyUpload {
 public:
  ReplyUpload(std::shared_ptr<BufferChainAllocator> pool, const std::string& name);

  bool isStarted() const { return static_cast<bool>(request_); }

  // Starts the upload of a target response, `data` its first body bytes and
  // with `end` all of them; `method` is the relayed request's. False when it
  // could not start: the exchange is then over.
  bool start(const ExchangeRef& exchange, HttpClient& http, const std::string& url, const MessageHeaders& head,
             StringSection method, const uint8_t* data, std::size_t length, bool end);
  // A complete answer with this status and no body.
  bool startSimple(const ExchangeRef& exchange, HttpClient& http, const std::string& url, const HttpStatus& status);
  // Moves the response's body pieces into the upload while it takes them.
  // False when it failed: the exchange is then over.
  bool pump(BodySink& body);

  // The exchange is over: an upload still going has nothing more coming.
  void abandon();
  // The relay client is going: the upload stops, finished or not.
  void cancel() {
    if (request_) request_->cancel();
  }
  // Lets go of the request and of the body source's stream, for the next use.
  void reset();

 private:
  // How the target response's body goes into the reply: the body we are
  // handed is plain payload, so a head that says chunked needs its framing
  // put back; a response that has no body gets nothing after its head.
  enum class Body { Plain, Chunked, None };

  bool makeRequest(const ExchangeRef& exchange, HttpClient& http, const std::string& url);

  std::shared_ptr<BufferChainAllocator> pool_;
  const std::string& name_;
  ExchangeRef exchange_;
  std::shared_ptr<WebClientRequest> request_;
  // The reply URL taken apart, its strings kept from use to use.
  UrlParts url_;
  // Used for one reply after another; a sink of an earlier one hears no
  // more from it.
  BodySource source_;
  std::string simpleBody_;
  Body body_ = Body::Plain;
  ChunkFramer framer_;
  bool complete_ = false;
  bool pumping_ = false;
  bool pumpAgain_ = false;
};

}  // namespace quorvel
