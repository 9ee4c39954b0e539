#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/lifetime_ref.h"
#include "core/reactor.h"
#include "net/async_socket.h"
#include "net/buffer_chain.h"
#include "net/buffer_chain_ptr.h"
#include "net/socket_address.h"

namespace quorvel {

// Where a request goes: the host name (without port) that TLS verifies and
// the distinct addresses it resolved to, in the resolver's order. Pooled
// connections are shared only between requests for the same host name.
struct HttpDestination {
  std::string host;
  std::vector<SocketAddress> addresses;
  // What it was looked up from: the requester's connect host and default
  // service, and the service the lookup was for.
  std::string connectHost;
  std::string defaultService;
  std::string service;

  // "host (addr, addr ...)" for log lines.
  std::string text() const;
  std::string addressText() const;
  bool accepts(const std::string& hostName, const SocketAddress& address) const;
};

// One persistent connection of the HTTP client. Reads happen only when its
// user asks for one (so a blocked consumer stops the reading), except while
// the connection waits in the pool, where one read stays outstanding to see
// the server closing it.
class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
 public:
  // The numbers appear in log lines.
  enum State : unsigned { Unconnected = 0, Connecting = 1, Connected = 2, Closed = 3 };

  // The request a connection is lent to, which takes what it reads.
  class User {
   public:
    // `error` is the socket's errno number; error 0 with no data means the
    // peer closed its side. The user may take `data`'s buffers; what it
    // leaves is released.
    virtual void onConnectionData(int error, BufferChain& data) = 0;

   protected:
    ~User() = default;
  };
  using ConnectCallback = Delegate<void(int error)>;
  using SendCallback = Delegate<void(int error, std::size_t bytes)>;

  HttpConnection(std::shared_ptr<Reactor> reactor, std::shared_ptr<AsyncSocketFactory> factory,
                 std::shared_ptr<BufferChainAllocator> allocator, HttpDestination destination);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  uintptr_t id() const { return reinterpret_cast<uintptr_t>(this); }
  State state() const { return state_; }
  bool isOpen() const { return state_ == Connected; }
  const HttpDestination& destination() const { return destination_; }
  // The address it connected to (empty before).
  const SocketAddress& remoteAddress() const { return remote_; }

  // A new socket for `address`; TLS sockets get `hostName` to verify. The
  // callback runs later, with 0 on success; a failed attempt leaves the
  // connection Unconnected so another address can be tried.
  void connect(const SocketAddress& address, const ConnectCallback& callback);
  // Connects to the destination's addresses in turn until one takes the
  // connection, as one operation. Each attempt is logged under `identity`
  // (the requester's, printed as "0x%x"). `callback` runs once: 0 when
  // connected, else the last attempt's error; `onRetry` runs before each
  // further attempt. A close meanwhile ends the attempts.
  void connectAny(uintptr_t identity, const ConnectCallback& callback, const Delegate<void()>& onRetry);
  void send(const BufferChainPtr& data, const SendCallback& callback);
  // Starts one read unless one is outstanding; its result goes to the user
  // set at completion time.
  void receive();
  bool isReceiving() const { return receiving_; }
  // The user must take itself off (null) before it goes: the connection
  // keeps a plain pointer, so that lending it costs no callback object.
  void setUser(User* user) { user_ = user; }
  // While idle (no user), data or a close from the server closes the
  // connection and calls this. Set once, by the pool that made it.
  void setIdleClosedHandler(const Delegate<void()>& handler) { idleClosed_ = handler; }
  void close();

 private:
  void onConnect(int error, const SocketAddress& address, const ConnectCallback& callback);
  void connectFrom(std::size_t index, uintptr_t identity, const ConnectCallback& callback,
                   const Delegate<void()>& onRetry);
  void onAttempt(int error, std::size_t index, uintptr_t identity, const ConnectCallback& callback,
                 const Delegate<void()>& onRetry);
  void onReceive(int error, std::size_t bytes);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<AsyncSocketFactory> factory_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  const HttpDestination destination_;
  std::shared_ptr<AsyncSocket> socket_;
  SocketAddress remote_;
  State state_ = Unconnected;
  bool receiving_ = false;
  // The read in flight and its size. Kept here rather than in its callback,
  // which then holds only a lifetime reference and copies as plain bytes.
  BufferChainPtr reading_;
  std::size_t readingSize_ = 0;
  // Buffers left over from the last read, reused by the next.
  BufferChain spare_;
  std::size_t spareBytes_ = 0;
  // Reads start small and grow while they come back full: a connection that
  // carries small messages keeps a few buffers, not a big read's worth,
  // which across the pool's idle connections adds up.
  const std::size_t minReadSize_;
  const std::size_t maxReadSize_;
  std::size_t readSize_;
  User* user_ = nullptr;
  Delegate<void()> idleClosed_;
  // Made once: every read hands the socket a copy.
  AsyncSocket::TransferCallback onRead_;
  LifetimeToken token_ = makeLifetimeToken();
  LifetimeAnchor<HttpConnection> anchor_{this};
};

}  // namespace quorvel
