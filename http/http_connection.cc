#include "http/http_connection.h"

#include <algorithm>
#include <cerrno>
#include <exception>

#include <netinet/in.h>
#include <netinet/tcp.h>

#include "core/log.h"
#include "net/ssl_socket.h"

namespace quorvel {
namespace {

const log::Log Log("httpclient");

constexpr int SocketStream = 1;  // SOCK_STREAM
// Reads fill at most this much; the socket layer takes up to 64 buffers per
// read, so small buffers cap it lower.
constexpr std::size_t ReadBytes = 32768;
constexpr std::size_t MaxReadBuffers = 64;
// A small response, head and body, fits in one read of the smallest size.
// Kept small all the same: every buffer of a read is one more piece for the
// system call to fill and for the pool to hand out, even when few bytes come;
// a big body makes the reads grow within a few of them.
constexpr std::size_t MinReadBytes = 2048;

std::size_t readSizeFor(const BufferChainAllocator& allocator, std::size_t bytes) {
  const std::size_t bufferSize = std::max<std::size_t>(allocator.bufferSize(), 1);
  const std::size_t buffers = std::clamp<std::size_t>(bytes / bufferSize, 1, MaxReadBuffers);
  return buffers * bufferSize;
}

// Requests and replies go out as a head and then body pieces in separate
// sends; with Nagle's algorithm each small piece after the first waits for
// the peer's delayed ACK (about 40 ms on Linux) while the peer waits for it.
void disableNagle(AsyncSocket& socket) {
  const int on = 1;
  try {
    socket.setOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  } catch (const std::exception& e) {
    QLOG(Log, log::Debug, "Cannot disable Nagle's algorithm: %s", e.what());
  }
}

}  // namespace

std::string HttpDestination::addressText() const {
  std::string text;
  for (const SocketAddress& address : addresses) {
    if (!text.empty()) text += ", ";
    text += address.toString();
  }
  return text;
}

std::string HttpDestination::text() const { return host + " (" + addressText() + ")"; }

bool HttpDestination::accepts(const std::string& hostName, const SocketAddress& address) const {
  return hostName == host && std::find(addresses.begin(), addresses.end(), address) != addresses.end();
}

HttpConnection::HttpConnection(std::shared_ptr<Reactor> reactor, std::shared_ptr<AsyncSocketFactory> factory,
                               std::shared_ptr<BufferChainAllocator> allocator, HttpDestination destination)
    : reactor_(std::move(reactor)),
      factory_(std::move(factory)),
      allocator_(std::move(allocator)),
      destination_(std::move(destination)),
      minReadSize_(readSizeFor(*allocator_, MinReadBytes)),
      maxReadSize_(readSizeFor(*allocator_, ReadBytes)),
      readSize_(minReadSize_) {}

HttpConnection::~HttpConnection() {
  if (socket_) socket_->close();
  spare_.releaseBuffers();
}

void HttpConnection::connect(const SocketAddress& address, const ConnectCallback& callback) {
  if (socket_) socket_->close();
  socket_.reset();
  state_ = Connecting;
  std::weak_ptr<HttpConnection> weak = shared_from_this();
  try {
    socket_ = factory_->createSocket(address.family(), SocketStream, 0);
    // TLS sockets verify the server against the name, not the address.
    setSslHostName(*socket_, destination_.host);
    disableNagle(*socket_);
    socket_->connect(address, [weak, address, callback](int error) {
      if (std::shared_ptr<HttpConnection> self = weak.lock()) self->onConnect(error, address, callback);
    });
  } catch (const std::exception& e) {
    QLOG(Log, log::Notice, "0x%x: Cannot open a socket for %s: %s", id(), address.toString(), e.what());
    socket_.reset();
    // Connect results always come later, like the socket's own.
    reactor_->post(token_, [weak, address, callback]() {
      if (std::shared_ptr<HttpConnection> self = weak.lock()) self->onConnect(EIO, address, callback);
    });
  }
}

void HttpConnection::onConnect(int error, const SocketAddress& address, const ConnectCallback& callback) {
  if (state_ != Connecting) {
    // Closed meanwhile.
    if (callback) callback(error ? error : ECANCELED);
    return;
  }
  if (error) {
    if (socket_) socket_->close();
    socket_.reset();
    state_ = Unconnected;
  } else {
    state_ = Connected;
    remote_ = address;
  }
  if (callback) callback(error);
}

void HttpConnection::connectAny(uintptr_t identity, const ConnectCallback& callback, const Delegate<void()>& onRetry) {
  connectFrom(0, identity, callback, onRetry);
}

void HttpConnection::connectFrom(std::size_t index, uintptr_t identity, const ConnectCallback& callback,
                                 const Delegate<void()>& onRetry) {
  const SocketAddress& address = destination_.addresses[index];
  QLOG(Log, log::Debug, "0x%x: Connecting to %s...", identity, address.toString());
  std::weak_ptr<HttpConnection> weak = shared_from_this();
  connect(address, [weak, index, identity, callback, onRetry](int error) {
    if (std::shared_ptr<HttpConnection> self = weak.lock()) self->onAttempt(error, index, identity, callback, onRetry);
  });
}

void HttpConnection::onAttempt(int error, std::size_t index, uintptr_t identity, const ConnectCallback& callback,
                               const Delegate<void()>& onRetry) {
  if (state_ == Closed) {
    if (callback) callback(error);
    return;
  }
  const SocketAddress& address = destination_.addresses[index];
  QLOG(Log, error ? log::Notice : log::Debug, "0x%x: Connection to %s %s", identity, address.toString(),
       error ? "failed" : "succeeded");
  if (error) QLOG(Log, log::Notice, "0x%x: Connect error %d: %s", identity, error, socketErrorText(error));
  if (error && index + 1 < destination_.addresses.size()) {
    if (onRetry) onRetry();
    connectFrom(index + 1, identity, callback, onRetry);
    return;
  }
  if (callback) callback(error);
}

void HttpConnection::send(const BufferChainPtr& data, const SendCallback& callback) {
  if (state_ != Connected) {
    reactor_->post(token_, [callback]() {
      if (callback) callback(ENOTCONN, 0);
    });
    return;
  }
  socket_->send(data, callback);
}

// Idle connections read with the current size too: the next response lands
// in that read.
void HttpConnection::receive() {
  if (receiving_ || state_ != Connected) return;
  if (spareBytes_ > readSize_) {
    // Whole buffers, so the cut falls between two of them.
    BufferChain extra;
    spare_.truncate(readSize_, extra);
    extra.releaseBuffers();
    spareBytes_ = readSize_;
  }
  if (spareBytes_ < readSize_) {
    BufferChain more = allocator_->allocate(readSize_ - spareBytes_);
    if (more.empty() && spare_.empty()) {
      QLOG(Log, log::Error, "0x%x: No buffers for receiving", id());
      // Reported like a failed read, later.
      std::weak_ptr<HttpConnection> weak = shared_from_this();
      receiving_ = true;
      reactor_->post(token_, [weak]() {
        if (std::shared_ptr<HttpConnection> self = weak.lock()) self->onReceive(ENOMEM, 0);
      });
      return;
    }
    if (!more.empty()) spareBytes_ = readSize_;
    // The top-up is the short chain: appending walks to its end only.
    more.append(spare_);
    spare_ = more;
  }
  readingSize_ = std::exchange(spareBytes_, 0);
  reading_ = BufferChainPtr(std::exchange(spare_, BufferChain()));
  receiving_ = true;
  if (!onRead_) {
    onRead_ = [self = anchor_.ref()](int error, std::size_t bytes) {
      if (auto connection = self.lock()) connection->onReceive(error, bytes);
    };
  }
  socket_->receive(reading_, onRead_);
}

void HttpConnection::onReceive(int error, std::size_t bytes) {
  receiving_ = false;
  BufferChain data = reading_ ? reading_.release() : BufferChain();
  reading_.reset();
  const std::size_t size = std::exchange(readingSize_, 0);
  if (state_ != Connected) {
    data.releaseBuffers();
    return;
  }
  if (!error && bytes == size) {
    readSize_ = std::min(readSize_ * 2, maxReadSize_);
  } else if (!error && bytes * 4 < size) {
    readSize_ = std::max(readSize_ / 2, minReadSize_);
  }
  if (error || bytes == 0) {
    data.releaseBuffers();
  } else if (bytes < size) {
    BufferChain unused;
    data.truncate(bytes, unused);
    // Whole buffers after the cut.
    spareBytes_ = unused.empty() ? 0 : size - (bytes + allocator_->bufferSize() - 1) / allocator_->bufferSize() *
                                                   allocator_->bufferSize();
    spare_ = unused;
  }
  if (error || bytes == 0) state_ = Closed;
  if (user_) {
    user_->onConnectionData(error, data);
    data.releaseBuffers();
    return;
  }
  if (bytes > 0 && !error) {
    QLOG(Log, log::Notice, "0x%x: onReceive(%s): No request!", id(), remote_.toString());
    data.releaseBuffers();
  }
  close();
  // The caller of this completion holds the connection, whatever the
  // handler does to the pool's lists.
  if (idleClosed_) idleClosed_();
}

void HttpConnection::close() {
  state_ = Closed;
  if (socket_) socket_->close();
}

}  // namespace quorvel
