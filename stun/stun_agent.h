#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/delegate.h"
#include "core/time.h"
#include "net/async_socket.h"
#include "net/socket_address.h"
#include "stun/message.h"

namespace quorvel {
namespace stun {

// Identifies one client transaction; printed as 0x%x in log lines. 0 is never
// handed out.
using RequestHandle = uint32_t;

// Runs the STUN client transactions of one ICE session and classifies every
// datagram the session receives.
class StunAgent {
 public:
  // error is 0 when a response arrived (success or error class: telling them
  // apart is the requester's business), otherwise an errno value: ETIMEDOUT
  // when the time limit passed, ENOTCONN when the socket went away, or the
  // socket's own error. response is null unless error is 0.
  using ResponseCallback = Delegate<void(int error, const MessagePtr& response, const SocketAddress& from,
                                         const SocketAddress& local)>;
  // An incoming request or indication, with the socket it came in on so that
  // the handler can answer through sendMessage.
  using RequestHandler = Delegate<void(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                                       const MessagePtr& message)>;

  virtual ~StunAgent() = default;

  // A send on the request's socket failed: the request ends with `error`.
  virtual void handleSocketError(RequestHandle handle, int error) = 0;
  // Returns false, leaving the datagram to the caller, when it is not STUN.
  // Responses are matched to pending requests; requests and indications go to
  // `handler` (or the one set with setRequestHandler when it is empty).
  virtual bool handleDatagram(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                              const uint8_t* data, std::size_t size, bool fingerprintRequired,
                              const RequestHandler& handler) = 0;
  // One datagram outside any transaction (a response to an incoming check).
  virtual void sendMessage(const std::shared_ptr<AsyncSocket>& socket, const Message& message,
                           const SocketAddress& to) = 0;
  // Starts a transaction. The message must be a request (std::logic_error
  // "sendRequest: Not a request"). A response is checked for integrity only
  // when `key` is not empty. An rto of 0 sends once and only waits.
  virtual RequestHandle sendRequest(const MessagePtr& message, const std::shared_ptr<AsyncSocket>& socket,
                                    const SocketAddress& to, Duration rto, Duration timeLimit,
                                    const std::string& key, const ResponseCallback& callback) = 0;
  // The session's handler for requests that arrive without one of their own.
  virtual void setRequestHandler(const RequestHandler& handler) = 0;

  // Ends the transaction without calling its callback; unknown handles are
  // ignored.
  virtual void cancel(RequestHandle handle) = 0;
  virtual std::size_t pendingCount() const = 0;
};

}  // namespace stun
}  // namespace quorvel
