#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include "core/cancelable_task.h"
#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"
#include "http/http_client.h"
#include "http/web_client.h"
#include "net/async_socket.h"
#include "net/buffer_chain_ptr.h"
#include "net/buffer_pool.h"

namespace quorvel {
namespace ferrule {

// Serves one SCTP connection of a remote client: its one message is the
// query of a video request, which becomes a GET of "/video.vdo?" + query on
// the target host; the response body goes back over the connection as it
// arrives, one send at a time, so a slow client holds the target back
// instead of filling memory. Ends (once) when the body has been sent, on any
// error, when the client goes, or when no query has come within the query
// wait (a connection that never asks would otherwise keep its association
// and the client's session alive for ever); then the close callback runs.
class StreamRelay : public std::enable_shared_from_this<StreamRelay> {
 public:
  using CloseCallback = Delegate<void(StreamRelay* relay)>;

  // The longest query taken in one receive; the rest of a longer message
  // would count as unexpected data.
  static constexpr std::size_t MaxRequestSize = 4096;

  StreamRelay(std::shared_ptr<Reactor> reactor, std::shared_ptr<AsyncSocket> socket,
              std::shared_ptr<BufferPool> pool, std::shared_ptr<HttpClient> httpClient, std::string targetHost,
              Duration queryWait, CloseCallback closeCallback);
  // Cancels the target request and closes the connection, without calling
  // the close callback.
  ~StreamRelay();
  StreamRelay(const StreamRelay&) = delete;
  StreamRelay& operator=(const StreamRelay&) = delete;

  // Starts receiving the query, and the query wait.
  void start();
  bool isClosed() const { return closed_; }

 private:
  void receive();
  void onReceived(const BufferChainPtr& chain, int error, std::size_t bytes);
  void processRequest(const std::string& text);
  void onResponse(const std::shared_ptr<WebClientResponse>& response);
  void onRequestDone(const boost::system::error_code& code);
  void pump();
  void onSent(int error);
  void onQueryWaitOver();
  void close();
  void release();

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<AsyncSocket> socket_;
  std::shared_ptr<BufferPool> pool_;
  std::shared_ptr<HttpClient> httpClient_;
  const std::string targetHost_;
  const Duration queryWait_;
  CloseCallback closeCallback_;
  CancelableTask queryWaitTask_;

  std::shared_ptr<WebClientRequest> request_;  // the active one
  bool requestDone_ = false;
  std::shared_ptr<BodySink> body_;
  BufferChainPtr sending_;  // the chain of the outstanding send
  bool closed_ = false;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ferrule
}  // namespace quorvel
