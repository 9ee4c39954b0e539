#include "net/asio_socket.h"

#include <cerrno>
#include <deque>
#include <memory>
#include <stdexcept>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/udp.hpp>

#include "core/handler_memory.h"
#include "core/log.h"
#include "net/asio_socket_factory.h"
#include "net/transfer_spares.h"

namespace quorvel {
namespace {

const log::Log Log("asiosocket");

using boost::asio::ip::tcp;
using boost::asio::ip::udp;

// What a transfer needs until it completes, in one block: asio moves the
// handler from layer to layer, and with the block it is a pointer. Blocks
// are kept by the socket and used again.
struct Transfer {
  BufferChainPtr buffers;
  AsyncSocket::TransferCallback callback;
  // A stream write's progress, and its outcome once it has one.
  std::size_t done = 0;
  int error = 0;
};

// A chain as the library's buffer sequence: it walks the buffers themselves
// (a read of 16 KB is 32 of them), with no list made of them first.
template <typename AsioBuffer>
class ChainPieces {
 public:
  class iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = AsioBuffer;
    using difference_type = std::ptrdiff_t;
    using pointer = const AsioBuffer*;
    using reference = AsioBuffer;

    explicit iterator(Buffer* buffer = nullptr) : buffer_(buffer) {}
    AsioBuffer operator*() const { return AsioBuffer(buffer_->data(), buffer_->length); }
    iterator& operator++() {
      buffer_ = buffer_->next;
      return *this;
    }
    iterator operator++(int) {
      iterator before = *this;
      buffer_ = buffer_->next;
      return before;
    }
    bool operator==(const iterator& other) const { return buffer_ == other.buffer_; }
    bool operator!=(const iterator& other) const { return buffer_ != other.buffer_; }

   private:
    Buffer* buffer_;
  };

  explicit ChainPieces(const BufferChainPtr& buffers) : first_(buffers ? buffers.chain().first() : nullptr) {}
  iterator begin() const { return iterator(first_); }
  iterator end() const { return iterator(); }

 private:
  Buffer* first_;
};

// What outstanding operations keep alive: the socket itself, so that the
// AsyncSocket object may go while they are in flight; and the transfer
// blocks of completed operations, for the next ones.
template <typename S>
struct SocketState {
  explicit SocketState(boost::asio::io_context& io) : socket(io) {}
  S socket;
  TransferSpares<Transfer> spares;
  // Stream writes: the one in progress, and those sent while it was; a
  // write that ended within send() waits in `finished` for the loop.
  bool writing = false;
  std::deque<std::unique_ptr<Transfer>> queuedWrites;
  std::unique_ptr<Transfer> finished;
  bool closed = false;
};

// The operations common to stream and datagram sockets.
template <typename S>
class AsioSocket : public AsyncSocket {
 public:
  using Endpoint = typename S::protocol_type::endpoint;

  AsioSocket(std::shared_ptr<AsioReactor> reactor, std::shared_ptr<SocketState<S>> state)
      : reactor_(std::move(reactor)), state_(std::move(state)) {}

  void bind(const SocketAddress& address) override { asio_detail::bind(state_->socket, address); }

  void connect(const SocketAddress& address, const ConnectCallback& callback) override {
    state_->socket.async_connect(asio_detail::toEndpoint<Endpoint>(address),
                                 pooled([state = state_, callback](const boost::system::error_code& error) {
                                   if (callback) callback(asio_detail::errorNumber(error));
                                 }));
  }

  void setOption(int level, int name, const void* value, std::size_t length) override {
    asio_detail::setOption(state_->socket.native_handle(), level, name, value, length);
  }

  void getOption(int level, int name, void* value, std::size_t& length) override {
    asio_detail::getOption(state_->socket.native_handle(), level, name, value, length);
  }

  SocketAddress localAddress() const override { return asio_detail::localAddress(state_->socket); }

  SocketAddress remoteAddress() const override { return asio_detail::remoteAddress(state_->socket); }

  void close() override {
    state_->closed = true;
    asio_detail::cancelAndClose(state_->socket);
  }

 protected:
  // Calls start(pieces, handler) to begin the asio operation over `buffers`.
  // The state stays alive with the handler, so the socket may go while it
  // is in flight.
  template <typename AsioBuffer, typename Start>
  void transfer(const BufferChainPtr& buffers, const TransferCallback& callback, Start start) {
    std::unique_ptr<Transfer> op = state_->spares.take(buffers, callback);
    auto done = [state = state_, op = std::move(op)](const boost::system::error_code& error,
                                                     std::size_t bytes) mutable {
      if (op->callback) op->callback(asio_detail::errorNumber(error), bytes);
      state->spares.giveBack(std::move(op));
    };
    start(ChainPieces<AsioBuffer>(buffers), pooled(std::move(done)));
  }

  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<SocketState<S>> state_;
};

template <typename S>
using StatePtr = std::shared_ptr<SocketState<S>>;

// The reactor is passed as a plain pointer: it outlives whatever its own
// loop runs, and the task below then fits a Delegate without a heap block.
template <typename S>
void continueWrite(AsioReactor* reactor, const StatePtr<S>& state, std::unique_ptr<Transfer> op, bool withinCall);

// The write's callback, then the next queued write. A write that ended
// within send() is finished by a task of the loop's turn, which is shared
// with the turn's other tasks rather than queued alone.
template <typename S>
void finishWrite(AsioReactor* reactor, const StatePtr<S>& state, std::unique_ptr<Transfer> op, bool withinCall) {
  if (withinCall) {
    state->finished = std::move(op);
    reactor->postSelfGuarded([reactor, state]() {
      if (state->finished) finishWrite(reactor, state, std::move(state->finished), false);
    });
    return;
  }
  // The next write starts before this callback runs, so that one the
  // callback sends goes after it; its own completion waits for the loop,
  // so the callbacks still run in order.
  if (state->queuedWrites.empty()) {
    state->writing = false;
  } else {
    std::unique_ptr<Transfer> next = std::move(state->queuedWrites.front());
    state->queuedWrites.pop_front();
    continueWrite(reactor, state, std::move(next), true);
  }
  if (op->callback) op->callback(op->error, op->done);
  state->spares.giveBack(std::move(op));
}

template <typename S>
void continueWrite(AsioReactor* reactor, const StatePtr<S>& state, std::unique_ptr<Transfer> op, bool withinCall) {
  constexpr std::size_t MaxPieces = 64;
  for (;;) {
    if (state->closed) {
      op->error = ECANCELED;
      return finishWrite(reactor, state, std::move(op), withinCall);
    }
    iovec pieces[MaxPieces];
    std::size_t count = 0;
    std::size_t skip = op->done;
    for (Buffer* buffer = op->buffers ? op->buffers.chain().first() : nullptr; buffer && count < MaxPieces;
         buffer = buffer->next) {
      if (skip >= buffer->length) {
        skip -= buffer->length;
        continue;
      }
      pieces[count].iov_base = buffer->data() + skip;
      pieces[count].iov_len = buffer->length - skip;
      skip = 0;
      ++count;
    }
    if (count == 0) return finishWrite(reactor, state, std::move(op), withinCall);
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    // A peer that has gone fails the write; it must not raise SIGPIPE.
    const ssize_t sent = ::sendmsg(state->socket.native_handle(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      op->done += static_cast<std::size_t>(sent);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      op->error = errno;
      return finishWrite(reactor, state, std::move(op), withinCall);
    }
    // Edge-triggered readiness: asked for only after the socket said EAGAIN.
    auto& socket = state->socket;
    socket.async_wait(S::wait_write, pooled([reactor, state, op = std::move(op)](
                                               const boost::system::error_code& error) mutable {
      if (!error) return continueWrite(reactor, state, std::move(op), false);
      op->error = state->closed ? ECANCELED : asio_detail::errorNumber(error);
      finishWrite(reactor, state, std::move(op), false);
    }));
    return;
  }
}

template <typename S>
class AsioStreamSocket : public AsioSocket<S> {
 public:
  using AsioSocket<S>::AsioSocket;
  using typename AsyncSocket::ReceiveFromCallback;
  using typename AsyncSocket::TransferCallback;

  // Writes the whole chain, in order after any write still in progress.
  // The bytes go to the socket at once, and asio is asked only to say when
  // a full socket has room again: its composed write, with an operation
  // and a completion through the loop's queue for what is nearly always
  // one system call, cost more than the rest of a small request.
  void send(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    std::unique_ptr<Transfer> op = this->state_->spares.take(buffers, callback);
    op->done = 0;
    op->error = 0;
    if (this->state_->writing) {
      this->state_->queuedWrites.push_back(std::move(op));
      return;
    }
    this->state_->writing = true;
    continueWrite(this->reactor_.get(), this->state_, std::move(op), true);
  }

  void sendTo(const BufferChainPtr&, const SocketAddress&, const TransferCallback&) override {
    throw std::logic_error("sendTo not supported by stream sockets");
  }

  // Whatever is available, up to the chain's size.
  void receive(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    this->template transfer<boost::asio::mutable_buffer>(buffers, callback, [this](auto pieces, auto handler) {
      this->state_->socket.async_read_some(pieces, std::move(handler));
    });
  }

  void receiveFrom(const BufferChainPtr&, const ReceiveFromCallback&) override {
    throw std::logic_error("receiveFrom not supported by stream sockets");
  }
};

template <typename S>
class AsioDatagramSocket : public AsioSocket<S> {
 public:
  using AsioSocket<S>::AsioSocket;
  using typename AsyncSocket::ReceiveFromCallback;
  using typename AsyncSocket::TransferCallback;
  using Endpoint = typename AsioSocket<S>::Endpoint;

  // One datagram to the connected peer.
  void send(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    this->template transfer<boost::asio::const_buffer>(buffers, callback, [this](auto pieces, auto handler) {
      this->state_->socket.async_send(pieces, std::move(handler));
    });
  }

  void sendTo(const BufferChainPtr& buffers, const SocketAddress& to, const TransferCallback& callback) override {
    const Endpoint endpoint = asio_detail::toEndpoint<Endpoint>(to);
    this->template transfer<boost::asio::const_buffer>(buffers, callback, [this, &endpoint](auto pieces, auto handler) {
      this->state_->socket.async_send_to(pieces, endpoint, std::move(handler));
    });
  }

  void receive(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    this->template transfer<boost::asio::mutable_buffer>(buffers, callback, [this](auto pieces, auto handler) {
      this->state_->socket.async_receive(pieces, std::move(handler));
    });
  }

  long tryReceiveFrom(uint8_t* data, std::size_t size, SocketAddress& from) override {
    sockaddr_storage sender{};
    socklen_t length = sizeof(sender);
    const ssize_t got = ::recvfrom(this->state_->socket.native_handle(), data, size, MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&sender), &length);
    if (got < 0) return -errno;
    from = SocketAddress(reinterpret_cast<const sockaddr*>(&sender), length);
    return static_cast<long>(got);
  }

  long trySendTo(const uint8_t* data, std::size_t size, const SocketAddress& to) override {
    const ssize_t sent = ::sendto(this->state_->socket.native_handle(), data, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                                  to.raw(), static_cast<socklen_t>(to.length()));
    return sent < 0 ? -errno : static_cast<long>(sent);
  }

  void receiveFrom(const BufferChainPtr& buffers, const ReceiveFromCallback& callback) override {
    // The sender is written when the datagram arrives, so it lives with the
    // operation rather than on this stack.
    auto from = std::make_shared<Endpoint>();
    this->state_->socket.async_receive_from(
        ChainPieces<boost::asio::mutable_buffer>(buffers), *from,
        [state = this->state_, buffers, callback, from](const boost::system::error_code& error, std::size_t bytes) {
          if (callback) callback(asio_detail::errorNumber(error), bytes, asio_detail::fromEndpoint(*from));
        });
  }
};

template <typename A>
struct ListenerState {
  explicit ListenerState(boost::asio::io_context& io) : acceptor(io) {}
  A acceptor;
};

// Everything of a listener but the kind of socket it accepts.
template <typename A, typename S>
class AsioListenerBase : public AsyncListener {
 public:
  AsioListenerBase(std::shared_ptr<AsioReactor> reactor, std::shared_ptr<ListenerState<A>> state)
      : reactor_(std::move(reactor)), state_(std::move(state)) {}

  void bind(const SocketAddress& address) override { asio_detail::bind(state_->acceptor, address); }

  void listen(int backlog) override {
    boost::system::error_code error;
    state_->acceptor.listen(backlog, error);
    if (error) asio_detail::throwSocketError("listen", error);
  }

  void setOption(int level, int name, const void* value, std::size_t length) override {
    asio_detail::setOption(state_->acceptor.native_handle(), level, name, value, length);
  }

  void getOption(int level, int name, void* value, std::size_t& length) override {
    asio_detail::getOption(state_->acceptor.native_handle(), level, name, value, length);
  }

  SocketAddress localAddress() const override { return asio_detail::localAddress(state_->acceptor); }

  void close() override { asio_detail::cancelAndClose(state_->acceptor); }

 protected:
  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<ListenerState<A>> state_;
};

template <typename A, typename S>
class AsioListener : public AsioListenerBase<A, S> {
 public:
  using AsioListenerBase<A, S>::AsioListenerBase;
  using typename AsyncListener::AcceptCallback;

  void accept(const AcceptCallback& callback) override {
    auto accepted = std::make_shared<SocketState<S>>(this->reactor_->ioContext());
    // A weak reference: a pending accept must not keep the loop's owner alive.
    std::weak_ptr<AsioReactor> reactor = this->reactor_;
    this->state_->acceptor.async_accept(
        accepted->socket,
        [state = this->state_, accepted, reactor, callback](const boost::system::error_code& error) {
          if (!callback) return;
          auto owner = reactor.lock();
          if (error || !owner) {
            callback(error ? asio_detail::errorNumber(error) : ECANCELED, nullptr);
            return;
          }
          callback(0, std::make_shared<AsioStreamSocket<S>>(owner, accepted));
        });
  }
};

template <typename S, typename Protocol>
std::shared_ptr<SocketState<S>> openSocket(boost::asio::io_context& io, const Protocol& protocol) {
  auto state = std::make_shared<SocketState<S>>(io);
  boost::system::error_code error;
  state->socket.open(protocol, error);
  if (error) asio_detail::throwSocketError("open", error);
  return state;
}

void checkFamily(int family) {
  if (family != AF_INET && family != AF_INET6) throw std::invalid_argument("Unsupported protocol family");
}

}  // namespace

namespace asio_detail {

int errorNumber(const boost::system::error_code& error) {
  if (!error || error == boost::asio::error::eof) return 0;
  if (error.category() == boost::system::system_category()) return error.value();
  return EIO;
}

void throwSocketError(const char* call, const boost::system::error_code& error) {
  throw SocketError(std::string(call) + ": " + error.message(), errorNumber(error));
}

void logBindFailure(const SocketAddress& address, int error) {
  QLOG(Log, log::Warning, "Failed to bind to %s: %d", address.toString(), error);
}

void setOption(int handle, int level, int name, const void* value, std::size_t length) {
  if (::setsockopt(handle, level, name, value, static_cast<socklen_t>(length)) != 0) {
    throw SocketError("setsockopt failed", errno);
  }
}

void getOption(int handle, int level, int name, void* value, std::size_t& length) {
  auto size = static_cast<socklen_t>(length);
  if (::getsockopt(handle, level, name, value, &size) != 0) throw SocketError("getsockopt failed", errno);
  length = size;
}

}  // namespace asio_detail

std::shared_ptr<AsyncSocket> AsioSocketFactory::createSocket(int family, int type, int protocol) {
  checkFamily(family);
  boost::asio::io_context& io = reactor_->ioContext();
  if (type == SOCK_STREAM) {
    if (protocol != 0 && protocol != IPPROTO_TCP) throw std::invalid_argument("Unsupported stream protocol");
    auto state = openSocket<tcp::socket>(io, family == AF_INET ? tcp::v4() : tcp::v6());
    return std::make_shared<AsioStreamSocket<tcp::socket>>(reactor_, state);
  }
  if (type == SOCK_DGRAM) {
    if (protocol != 0 && protocol != IPPROTO_UDP) throw std::invalid_argument("Unsupported datagram protocol");
    auto state = openSocket<udp::socket>(io, family == AF_INET ? udp::v4() : udp::v6());
    return std::make_shared<AsioDatagramSocket<udp::socket>>(reactor_, state);
  }
  throw std::logic_error("Unsupported protocol");
}

std::shared_ptr<AsyncListener> AsioSocketFactory::createListener(int family, int type, int protocol) {
  checkFamily(family);
  if (type != SOCK_STREAM) throw std::logic_error("Unsupported socket type");
  if (protocol != 0 && protocol != IPPROTO_TCP) throw std::invalid_argument("Unsupported stream protocol");
  auto state = std::make_shared<ListenerState<tcp::acceptor>>(reactor_->ioContext());
  boost::system::error_code error;
  state->acceptor.open(family == AF_INET ? tcp::v4() : tcp::v6(), error);
  if (error) asio_detail::throwSocketError("open", error);
  return std::make_shared<AsioListener<tcp::acceptor, tcp::socket>>(reactor_, state);
}

}  // namespace quorvel
