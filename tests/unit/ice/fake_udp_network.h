#pragma once

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "net/async_socket.h"
#include "net/local_network_info.h"
#include "net/name_resolver.h"
#include "net/socket_error.h"
#include "tests/support/manual_reactor.h"

namespace quorvel {
namespace testing {

class FakeUdpSocket;

// Datagrams between fake sockets on virtual time, with a one-way delay and
// full-cone NAT mappings (private address with port
// -> public address with port), so that reflexive candidates come out.
class FakeUdpNetwork {
 public:
  struct Datagram {
    SteadyTime at;
    SocketAddress from;  // as the receiver sees it
    SocketAddress to;
    std::vector<uint8_t> bytes;
  };

  explicit FakeUdpNetwork(ManualReactor& reactor) : reactor_(reactor) {}

  ManualReactor& reactor() { return reactor_; }
  Duration delay = Duration::milliseconds(1);
  // Every datagram that left a socket, as the receiver would see it.
  std::vector<Datagram> log;

  // A party the test plays itself, answering what arrives at `address`.
  using Responder = std::function<void(const SocketAddress& from, const std::vector<uint8_t>& bytes)>;
  void addResponder(const SocketAddress& address, Responder responder) { responders_[address.toString()] = responder; }

  void addNat(const SocketAddress& inside, const SocketAddress& outside) {
    outbound_[inside.toString()] = outside;
    inbound_[outside.toString()] = inside;
  }

  void bind(FakeUdpSocket* socket, const SocketAddress& address);
  void unbind(const SocketAddress& address) { bound_.erase(address.toString()); }
  std::size_t openSockets() const { return bound_.size(); }
  void send(const SocketAddress& from, const SocketAddress& to, const uint8_t* data, std::size_t size);

 private:
  ManualReactor& reactor_;
  std::map<std::string, FakeUdpSocket*> bound_;
  std::map<std::string, Responder> responders_;
  std::map<std::string, SocketAddress> outbound_;
  std::map<std::string, SocketAddress> inbound_;
  uint16_t nextPort_ = 40000;
  LifetimeToken token_ = makeLifetimeToken();
};

class FakeUdpSocket : public AsyncSocket, public std::enable_shared_from_this<FakeUdpSocket> {
 public:
  explicit FakeUdpSocket(FakeUdpNetwork& network) : network_(network) {}
  ~FakeUdpSocket() override { close(); }

  void bind(const SocketAddress& address) override { network_.bind(this, address); }
  void connect(const SocketAddress&, const ConnectCallback&) override {}
  void send(const BufferChainPtr&, const TransferCallback&) override {}
  void sendTo(const BufferChainPtr& buffers, const SocketAddress& to, const TransferCallback& callback) override {
    if (closed_) throw SocketError("closed", EBADF);
    std::vector<uint8_t> bytes(buffers.chain().size());
    copyFromChain(buffers.chain().begin(), buffers.chain().end(), bytes.data());
    network_.send(local_, to, bytes.data(), bytes.size());
    if (callback) {
      const std::size_t size = bytes.size();
      network_.reactor().post(token_, [callback, size]() { callback(0, size); });
    }
  }
  void receive(const BufferChainPtr&, const TransferCallback&) override {}
  void receiveFrom(const BufferChainPtr& buffers, const ReceiveFromCallback& callback) override {
    ++receives;
    receiveBuffers_ = buffers;
    receiveCallback_ = callback;
    if (receiveError) {
      network_.reactor().scheduleAfter(token_, Duration::milliseconds(1), [this, callback]() {
        receiveCallback_.clear();
        callback(receiveError, 0, SocketAddress());
      });
    }
    deliverLater();
  }
  void setOption(int, int, const void*, std::size_t) override {}
  void getOption(int, int, void*, std::size_t&) override {}
  SocketAddress localAddress() const override { return local_; }
  SocketAddress remoteAddress() const override { return SocketAddress(); }
  void close() override {
    if (closed_) return;
    closed_ = true;
    if (local_.valid()) network_.unbind(local_);
    if (receiveCallback_) {
      const ReceiveFromCallback callback = receiveCallback_;
      receiveCallback_.clear();
      receiveBuffers_ = BufferChainPtr();
      network_.reactor().post(token_, [callback]() { callback(ECANCELED, 0, SocketAddress()); });
    }
  }

  void arrive(const SocketAddress& from, std::vector<uint8_t> bytes) {
    queue_.push_back({from, std::move(bytes)});
    deliverLater();
  }
  void setLocal(const SocketAddress& address) { local_ = address; }
  // Every receive fails with this error a millisecond later, when set.
  int receiveError = 0;
  int receives = 0;

 private:
  void deliverLater() {
    network_.reactor().post(token_, [this]() { deliver(); });
  }
  void deliver() {
    if (closed_ || !receiveCallback_ || queue_.empty()) return;
    const auto [from, bytes] = queue_.front();
    queue_.erase(queue_.begin());
    const std::size_t size = std::min(bytes.size(), receiveBuffers_.chain().size());
    copyToChain(bytes.data(), bytes.data() + size, receiveBuffers_.chain().begin());
    const ReceiveFromCallback callback = receiveCallback_;
    receiveCallback_.clear();
    receiveBuffers_ = BufferChainPtr();
    callback(0, size, from);
  }

  FakeUdpNetwork& network_;
  SocketAddress local_;
  bool closed_ = false;
  BufferChainPtr receiveBuffers_;
  ReceiveFromCallback receiveCallback_;
  std::vector<std::pair<SocketAddress, std::vector<uint8_t>>> queue_;
  LifetimeToken token_ = makeLifetimeToken();
};

inline void FakeUdpNetwork::bind(FakeUdpSocket* socket, const SocketAddress& address) {
  SocketAddress local = address;
  if (local.port() == 0) local.setPort(nextPort_++);
  if (bound_.count(local.toString())) throw SocketError("in use", EADDRINUSE);
  bound_[local.toString()] = socket;
  socket->setLocal(local);
}

inline void FakeUdpNetwork::send(const SocketAddress& from, const SocketAddress& to, const uint8_t* data,
                                 std::size_t size) {
  const auto out = outbound_.find(from.toString());
  const SocketAddress seenFrom = out == outbound_.end() ? from : out->second;
  log.push_back({reactor_.clock().now(), seenFrom, to, std::vector<uint8_t>(data, data + size)});
  const auto in = inbound_.find(to.toString());
  const std::string target = (in == inbound_.end() ? to : in->second).toString();
  std::vector<uint8_t> bytes(data, data + size);
  reactor_.scheduleAfter(token_, delay, [this, target, seenFrom, bytes]() {
    const auto responder = responders_.find(target);
    if (responder != responders_.end()) {
      const Responder call = responder->second;
      call(seenFrom, bytes);
      return;
    }
    const auto socket = bound_.find(target);
    if (socket != bound_.end()) socket->second->arrive(seenFrom, bytes);
  });
}

class FakeUdpFactory : public AsyncSocketFactory {
 public:
  explicit FakeUdpFactory(FakeUdpNetwork& network) : network_(network) {}
  std::shared_ptr<AsyncSocket> createSocket(int, int, int) override {
    return std::make_shared<FakeUdpSocket>(network_);
  }
  std::shared_ptr<AsyncListener> createListener(int, int, int) override { return nullptr; }

 private:
  FakeUdpNetwork& network_;
};

class FakeNetworkInfo : public LocalNetworkInfo {
 public:
  void getInterfaces(std::vector<InterfaceInfo>& out) override { out.insert(out.end(), list.begin(), list.end()); }
  InterfaceInfo getInterface(int) override { return InterfaceInfo(); }
  void add(const char* name, int family, const char* address, bool up = true, bool loopback = false) {
    list.push_back({name, SocketAddress(family, address, 0), up, loopback});
  }
  std::vector<InterfaceInfo> list;
};

// Answers from a table, after a delay, never, or with a failure.
class FakeResolver : public NameResolver {
 public:
  explicit FakeResolver(ManualReactor& reactor) : reactor_(reactor) {}
  void resolve(const std::string& host, const std::string& service, const Callback& callback) override {
    if (silent) return;
    Result result{host, service, addresses};
    reactor_.scheduleAfter(token_, Duration::milliseconds(1),
                           [callback, result]() { callback(result, !result.addresses.empty()); });
  }
  std::vector<SocketAddress> addresses;
  bool silent = false;

 private:
  ManualReactor& reactor_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace testing
}  // namespace quorvel
