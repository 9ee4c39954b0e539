#include "ice/session_socket.h"

#include <cerrno>
#include <cstring>
#include <exception>

#include "core/log.h"
#include "ice/datagram_buffer.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

// Errors that concern one datagram or one destination (ICMP reports, full
// queues): the socket itself is fine.
bool recoverable(int error) {
  switch (error) {
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case EHOSTDOWN:
    case ENETDOWN:
    case EINTR:
    case EAGAIN:
    case ENOBUFS:
    case ENOMEM:
    case EMSGSIZE:
    case ETIMEDOUT:
      return true;
    default:
      return false;
  }
}

}  // namespace

SessionSocket::SessionSocket(std::shared_ptr<AsyncSocket> socket, const SocketAddress& localAddress)
    : socket_(std::move(socket)), localAddress_(localAddress) {}

SessionSocket::~SessionSocket() { close(); }

void SessionSocket::startReceiving(const Receiver& receiver) {
  receiver_ = receiver;
  receiveBuffer_ = makeDatagramBuffer(BufferSize);
  const std::weak_ptr<SessionSocket> weak = weak_from_this();
  onReceive_ = [weak](int error, std::size_t bytes, const SocketAddress& from) {
    if (const std::shared_ptr<SessionSocket> self = weak.lock()) self->onReceive(error, bytes, from);
  };
  receiveNext();
}

void SessionSocket::receiveNext() {
  if (closed_) return;
  try {
    socket_->receiveFrom(receiveBuffer_, onReceive_);
  } catch (const std::exception&) {
    QLOG(Log, log::Warning, "Unrecoverable receive error: %u, %d", localAddress_.port(), EIO);
  }
}

void SessionSocket::onReceive(int error, std::size_t bytes, const SocketAddress& from) {
  if (closed_ || error == ECANCELED) return;
  // Held for the drain: the receiver may close this socket and let go of it.
  const std::shared_ptr<SessionSocket> self = shared_from_this();
  if (!deliver(self, error, bytes, from)) return;
  // The wake-up's other datagrams without a loop turn each. A receiver that
  // closed the socket stops the drain.
  uint8_t* data = receiveBuffer_.chain().first()->data();
  SocketAddress sender;
  for (int read = 1; read < MaxReceivesPerWakeUp; ++read) {
    const long got = socket_->tryReceiveFrom(data, BufferSize, sender);
    if (got == -EAGAIN || got == -EOPNOTSUPP) break;
    const bool goOn = got < 0 ? deliver(self, static_cast<int>(-got), 0, sender)
                              : deliver(self, 0, static_cast<std::size_t>(got), sender);
    if (!goOn) return;
  }
  receiveNext();
}

bool SessionSocket::deliver(const std::shared_ptr<SessionSocket>& self, int error, std::size_t bytes,
                            const SocketAddress& from) {
  if (error) {
    if (!recoverable(error)) {
      QLOG(Log, log::Warning, "Unrecoverable receive error: %u, %d", localAddress_.port(), error);
      return false;
    }
    QLOG(Log, log::Debug, "Recoverable receive error: %u, %d", localAddress_.port(), error);
  } else if (bytes == 0) {
    QLOG(Log, log::Debug, "receiveFrom returned 0 bytes but no error!");
  } else if (bytes >= BufferSize) {
    QLOG(Log, log::Debug, "Dropping datagram of %u bytes or more from %s", static_cast<unsigned>(BufferSize),
         from.toString());
  } else {
    receiver_(self, from, receiveBuffer_.chain().first()->data(), bytes);
  }
  return !closed_;
}

BufferChainPtr* SessionSocket::freeSendBuffer() {
  // A buffer the socket has finished with is held by this list alone.
  for (BufferChainPtr& buffer : sendBuffers_) {
    if (buffer.useCount() == 1) return &buffer;
  }
  if (sendBuffers_.size() >= MaxSendsInFlight) return nullptr;
  sendBuffers_.push_back(makeDatagramBuffer(BufferSize));
  return &sendBuffers_.back();
}

bool SessionSocket::sendsQueued() const {
  for (const BufferChainPtr& buffer : sendBuffers_) {
    if (buffer.useCount() > 1) return true;
  }
  return false;
}

bool SessionSocket::send(const uint8_t* data, std::size_t size, const SocketAddress& to) {
  if (closed_ || size >= BufferSize) return false;
  // Straight from the caller's bytes, unless earlier datagrams still wait in
  // the socket's hands: this one must not overtake them.
  if (!sendsQueued()) {
    const long sent = socket_->trySendTo(data, size, to);
    if (sent >= 0) return true;
    // As with a failed asynchronous send, an error that concerns this
    // datagram alone loses it quietly.
    if (sent != -EAGAIN && sent != -EOPNOTSUPP) return recoverable(static_cast<int>(-sent));
  }
  BufferChainPtr* buffer = freeSendBuffer();
  if (!buffer) return false;
  Buffer* first = buffer->chain().first();
  std::memcpy(first->data(), data, size);
  first->length = static_cast<uint32_t>(size);
  try {
    socket_->sendTo(*buffer, to, AsyncSocket::TransferCallback());
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

void SessionSocket::close() {
  if (closed_) return;
  closed_ = true;
  socket_->close();
  // The receiver may be running right now (closing from inside it is
  // allowed), so it and the receive buffer stay until this object goes.
  sendBuffers_.clear();
}

}  // namespace ice
}  // namespace quorvel
