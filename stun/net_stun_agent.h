#pragma once

#include <list>
#include <memory>
#include <string>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "net/buffer_chain.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace stun {

// StunAgent over the program's asynchronous sockets. All of it runs on the
// reactor's thread. Every send of the agent, requests, retransmissions and
// responses alike, keeps at least `minSendInterval` from the previous one, so
// that one session's STUN traffic is paced as a whole.
class NetStunAgent : public StunAgent, public std::enable_shared_from_this<NetStunAgent> {
 public:
  NetStunAgent(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
               Duration minSendInterval);
  ~NetStunAgent() override;

  void handleSocketError(RequestHandle handle, int error) override;
  bool handleDatagram(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from, const uint8_t* data,
                      std::size_t size, bool fingerprintRequired, const RequestHandler& handler) override;
  void sendMessage(const std::shared_ptr<AsyncSocket>& socket, const Message& message,
                   const SocketAddress& to) override;
  RequestHandle sendRequest(const MessagePtr& message, const std::shared_ptr<AsyncSocket>& socket,
                            const SocketAddress& to, Duration rto, Duration timeLimit, const std::string& key,
                            const ResponseCallback& callback) override;
  void setRequestHandler(const RequestHandler& handler) override { requestHandler_ = handler; }
  void cancel(RequestHandle handle) override;
  std::size_t pendingCount() const override { return pending_.size(); }

 private:
  struct PendingRequest;
  using PendingPtr = std::shared_ptr<PendingRequest>;

  void transmit(const std::weak_ptr<PendingRequest>& weak);
  void schedule(const PendingPtr& request, SteadyTime when);
  // Ends a transaction that got no usable response; the callback runs after
  // the record is gone, so it may start or cancel other requests.
  void fail(const PendingPtr& request, int error);
  void dispose(const PendingPtr& request);
  PendingPtr find(RequestHandle handle) const;
  void handleResponse(const MessagePtr& response, const SocketAddress& from);
  // Sends now; false when the bytes could not even be handed to the socket.
  bool sendBytes(AsyncSocket& socket, const Message& message, const SocketAddress& to, RequestHandle handle);
  void sendLater(const std::weak_ptr<AsyncSocket>& socket, const MessagePtr& message, const SocketAddress& to);
  // The earliest moment at which pacing allows the next send.
  SteadyTime nextSendSlot() const;

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  const Duration minSendInterval_;
  bool sentAnything_ = false;
  // May lie in the future: a response waiting for its slot has claimed it.
  SteadyTime lastSend_;
  std::list<PendingPtr> pending_;
  RequestHandle nextHandle_ = 1;
  RequestHandler requestHandler_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace stun
}  // namespace quorvel
