#include "stun/net_stun_agent.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <stdexcept>

#include "core/log.h"
#include "net/buffer_chain_ptr.h"
#include "net/socket_error.h"
#include "stun/integrity.h"

namespace quorvel {
namespace stun {

namespace {

const log::Log Log("stunagent");

// Every line of the agent is at this level: STUN traffic is constant in an
// ICE session and only worth seeing when chasing a connectivity problem.
constexpr int Level = log::Debug;

SocketAddress localAddressOf(AsyncSocket* socket) {
  if (!socket) return SocketAddress();
  try {
    return socket->localAddress();
  } catch (const std::exception&) {
    return SocketAddress();  // closed or never bound
  }
}

}  // namespace

struct NetStunAgent::PendingRequest {
  RequestHandle handle = 0;
  MessagePtr message;
  TransactionId id{};
  std::weak_ptr<AsyncSocket> socket;
  SocketAddress destination;
  ResponseCallback callback;
  std::string key;
  Duration rto;
  SteadyTime deadline;
  SteadyTime nextDue;
  bool sent = false;
  std::unique_ptr<CancelableTask> task;
};

NetStunAgent::NetStunAgent(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
                           Duration minSendInterval)
    : reactor_(std::move(reactor)),
      allocator_(std::move(allocator)),
      minSendInterval_(minSendInterval) {}

NetStunAgent::~NetStunAgent() {
  for (const PendingPtr& request : pending_) request->task->cancel();
}

SteadyTime NetStunAgent::nextSendSlot() const { return sentAnything_ ? lastSend_ + minSendInterval_ : SteadyTime(); }

RequestHandle NetStunAgent::sendRequest(const MessagePtr& message, const std::shared_ptr<AsyncSocket>& socket,
                                        const SocketAddress& to, Duration rto, Duration timeLimit,
                                        const std::string& key, const ResponseCallback& callback) {
  if (!message || message->messageClass() != Message::Request) throw std::logic_error("sendRequest: Not a request");

  auto request = std::make_shared<PendingRequest>();
  request->handle = nextHandle_++;
  if (nextHandle_ == 0) nextHandle_ = 1;
  request->message = message;
  request->id = message->transactionId();
  request->socket = socket;
  request->destination = to;
  request->callback = callback;
  request->key = key;
  request->rto = rto;
  request->deadline = reactor_->steadyNow() + timeLimit;
  request->nextDue = reactor_->steadyNow();
  const std::weak_ptr<PendingRequest> weak = request;
  request->task = std::make_unique<CancelableTask>([this, weak]() { transmit(weak); });
  pending_.push_back(request);

  try {
    QLOG(Log, Level, "Initiating request 0x%x from %s to %s, rto %ums", request->handle,
         localAddressOf(socket.get()).toString(), to.toString(), static_cast<unsigned>(rto.count() / 1000));
    transmit(weak);
  } catch (const std::exception&) {
    // The record exists, so the requester must still hear about the failure,
    // but not from inside its own call.
    QLOG(Log, Level, "Unexpectedly failed to process request");
    if (find(request->handle)) dispose(request);
    if (callback) {
      reactor_->post(token_, [callback]() { callback(EIO, MessagePtr(), SocketAddress(), SocketAddress()); });
    }
  }
  return request->handle;
}

void NetStunAgent::schedule(const PendingPtr& request, SteadyTime when) {
  if (when > request->deadline) when = request->deadline;
  request->task->cancel();
  reactor_->scheduleAt(token_, when, request->task->start());
}

void NetStunAgent::transmit(const std::weak_ptr<PendingRequest>& weak) {
  const PendingPtr request = weak.lock();
  if (!request) return;  // disposed of meanwhile
  const SteadyTime now = reactor_->steadyNow();
  if (now >= request->deadline) {
    QLOG(Log, Level, "Request 0x%x timed out", request->handle);
    fail(request, ETIMEDOUT);
    return;
  }
  const std::shared_ptr<AsyncSocket> socket = request->socket.lock();
  if (!socket) {
    QLOG(Log, Level, "Socket for request 0x%x no longer exists", request->handle);
    fail(request, ENOTCONN);
    return;
  }
  const SteadyTime slot = nextSendSlot();
  if (now < slot) {
    schedule(request, slot);
    return;
  }
  if (request->sent && request->rto != Duration(0)) {
    if (now < request->nextDue) {
      schedule(request, request->nextDue);
      return;
    }
    request->rto = request->rto * 2;
  }

  QLOG(Log, Level, "(Re)sending request 0x%x", request->handle);
  if (!sendBytes(*socket, *request->message, request->destination, request->handle)) return;
  request->sent = true;
  // Without an RTO the request goes out once and only the time limit is left.
  request->nextDue = request->rto == Duration(0) ? request->deadline : now + request->rto;
  schedule(request, request->nextDue);
}

bool NetStunAgent::sendBytes(AsyncSocket& socket, const Message& message, const SocketAddress& to,
                             RequestHandle handle) {
  int error = 0;
  BufferChain chain = allocator_->allocate(message.size());
  if (chain.empty()) {
    error = ENOBUFS;
  } else {
    BufferChainPtr buffers(chain);
    copyToChain(message.data(), message.data() + message.size(), buffers.chain().begin());
    const std::weak_ptr<NetStunAgent> agent = weak_from_this();
    try {
      socket.sendTo(buffers, to, [agent, handle, to](int result, std::size_t) {
        if (result == 0) return;
        const std::shared_ptr<NetStunAgent> self = agent.lock();
        if (!self) return;
        if (handle) {
          self->handleSocketError(handle, result);
        } else {
          QLOG(Log, Level, "Failed to send response to %s: %d", to.toString(), result);
        }
      });
    } catch (const SocketError& e) {
      error = e.error() ? e.error() : EIO;
    }
  }
  if (error) {
    if (handle) {
      // Reported like an asynchronous failure, so that sendRequest never calls
      // back into its caller before it has returned.
      reactor_->post(token_, [this, handle, error]() { handleSocketError(handle, error); });
    } else {
      QLOG(Log, Level, "Failed to send response to %s: %d", to.toString(), error);
    }
    return false;
  }
  // A later slot may already be claimed by a response waiting its turn; it
  // stays the last send.
  lastSend_ = std::max(lastSend_, reactor_->steadyNow());
  sentAnything_ = true;
  return true;
}

void NetStunAgent::sendMessage(const std::shared_ptr<AsyncSocket>& socket, const Message& message,
                               const SocketAddress& to) {
  if (!socket) return;
  const SteadyTime slot = nextSendSlot();
  if (reactor_->steadyNow() >= slot) {
    sendBytes(*socket, message, to, 0);
    return;
  }
  // Claims the next slot now, so that requests due meanwhile wait behind it.
  lastSend_ = slot;
  sendLater(socket, std::make_shared<Message>(message), to);
}

void NetStunAgent::sendLater(const std::weak_ptr<AsyncSocket>& socket, const MessagePtr& message,
                             const SocketAddress& to) {
  reactor_->scheduleAt(token_, lastSend_, [this, socket, message, to]() {
    if (const std::shared_ptr<AsyncSocket> target = socket.lock()) sendBytes(*target, *message, to, 0);
  });
}

void NetStunAgent::handleSocketError(RequestHandle handle, int error) {
  const PendingPtr request = find(handle);
  if (!request) return;
  QLOG(Log, Level, "Request 0x%x failed, removing", handle);
  fail(request, error);
}

bool NetStunAgent::handleDatagram(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                                  const uint8_t* data, std::size_t size, bool fingerprintRequired,
                                  const RequestHandler& handler) {
  if (!isStunMessage(data, size, fingerprintRequired)) return false;
  const MessagePtr message = std::make_shared<Message>();
  if (!message->parse(data, size)) return true;
  const int messageClass = message->messageClass();
  if (messageClass == Message::SuccessResponse || messageClass == Message::ErrorResponse) {
    handleResponse(message, from);
  } else {
    // A copy: the handler may replace the agent's own while it runs.
    const RequestHandler target = handler ? handler : requestHandler_;
    if (target) target(socket, from, message);
  }
  return true;
}

void NetStunAgent::handleResponse(const MessagePtr& response, const SocketAddress& from) {
  const TransactionId id = response->transactionId();
  for (const PendingPtr& request : pending_) {
    if (request->id != id) continue;
    // A forged or corrupted answer must not end the transaction: the real
    // one may still come.
    if (!request->key.empty() && !checkMessageIntegrity(*response, request->key)) return;
    QLOG(Log, Level, "0x%x: Got response from %s", request->handle, from.toString());
    const PendingPtr matched = request;  // the list entry goes away below
    const std::shared_ptr<AsyncSocket> socket = matched->socket.lock();
    const ResponseCallback callback = matched->callback;
    const std::shared_ptr<NetStunAgent> keepAlive = weak_from_this().lock();
    dispose(matched);
    if (callback && socket) callback(0, response, from, localAddressOf(socket.get()));
    return;
  }
}

void NetStunAgent::cancel(RequestHandle handle) {
  const PendingPtr request = find(handle);
  if (!request) return;
  QLOG(Log, Level, "Cancelling request 0x%x", handle);
  request->task->cancel();
  dispose(request);
}

void NetStunAgent::fail(const PendingPtr& request, int error) {
  const ResponseCallback callback = request->callback;
  const std::shared_ptr<AsyncSocket> socket = request->socket.lock();
  const std::shared_ptr<NetStunAgent> keepAlive = weak_from_this().lock();
  dispose(request);
  if (callback) callback(error, MessagePtr(), SocketAddress(), localAddressOf(socket.get()));
}

void NetStunAgent::dispose(const PendingPtr& request) {
  QLOG(Log, Level, "Disposing of pending request 0x%x", request->handle);
  request->task->cancel();
  pending_.remove(request);
}

NetStunAgent::PendingPtr NetStunAgent::find(RequestHandle handle) const {
  for (const PendingPtr& request : pending_) {
    if (request->handle == handle) return request;
  }
  return PendingPtr();
}

}  // namespace stun
}  // namespace quorvel
