#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <boost/system/error_code.hpp>

#include "core/lifetime_ref.h"
#include "http/web_client.h"

namespace quorvel {

class TargetResponse;

// What the parts of one relayed exchange report to: the exchange itself
// (RelayExchange). They hold it through an ExchangeRef, so that they neither
// keep it alive nor see its later uses.
class ExchangeLink {
 public:
  // Exchanges are recycled; each use has its own number, 0 for none.
  virtual bool isInUse(uint64_t use) const = 0;
  // The handler's answer is ready: its head and, from send(), the whole body
  // (`end`), or nothing of the body yet, from start().
  virtual void answer(const std::shared_ptr<TargetResponse>& response, const uint8_t* data, std::size_t length,
                      bool end) = 0;
  // The answer's body has more to give, or its upload can take more.
  virtual void pumpReply() = 0;
  // The relay took the reply upload, or the upload failed.
  virtual void onReplyResponse(const std::shared_ptr<WebClientResponse>& response) = 0;
  virtual void onReplyError(const boost::system::error_code& code) = 0;

 protected:
  ~ExchangeLink() = default;
};

// One use of an exchange, as callbacks reach it: plain bytes, so the
// callbacks that hold one copy without counting.
struct ExchangeRef {
  LifetimeRef<ExchangeLink> link;
  uint64_t use = 0;

  // Calls f(link) only while this use is still in progress.
  template <typename F>
  void with(F&& f) const {
    const Pinned<ExchangeLink> held = link.lock();
    if (held && held->isInUse(use)) f(*held);
  }
  bool isActive() const {
    const Pinned<ExchangeLink> held = link.lock();
    return held && held->isInUse(use);
  }
};

}  // namespace quorvel
