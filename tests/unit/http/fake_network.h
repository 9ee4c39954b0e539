#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/lifetime.h"
#include "core/reactor.h"
#include "net/async_socket.h"
#include "net/buffer_chain.h"
#include "net/name_resolver.h"
#include "net/socket_error.h"
#include "tests/unit/http/chain_text.h"

namespace quorvel {
namespace testing {

// A socket whose peer is the test. Stream: what the code sends piles up in
// `sent`, and the test answers a pending receive with deliver(). Datagram:
// every sendTo is kept in `datagrams` with its time. Completions are posted
// to the reactor like a real socket's.
class FakeSocket : public AsyncSocket {
 public:
  struct Datagram {
    SteadyTime at;
    std::vector<uint8_t> bytes;
    SocketAddress to;
  };

  explicit FakeSocket(std::shared_ptr<Reactor> reactor, std::set<std::string>* refused = nullptr,
                      SocketAddress local = SocketAddress())
      : reactor_(std::move(reactor)), refused_(refused), local_(local) {}

  void bind(const SocketAddress&) override {}
  void connect(const SocketAddress& address, const ConnectCallback& callback) override {
    connectedTo = address;
    const int error = refused_ && refused_->count(address.toString()) ? ECONNREFUSED : 0;
    reactor_->post(token_, [callback, error]() { callback(error); });
  }
  void send(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    const std::string text = textOf(buffers.chain());
    sent += text;
    ++sends;
    complete(callback, text.size());
  }
  void sendTo(const BufferChainPtr& buffers, const SocketAddress& to, const TransferCallback& callback) override {
    if (throwOnSend) throw SocketError("sendTo failed", EPERM);
    std::vector<uint8_t> bytes(buffers.chain().size());
    copyFromChain(buffers.chain().begin(), buffers.chain().end(), bytes.data());
    datagrams.push_back({reactor_->steadyNow(), bytes, to});
    complete(callback, bytes.size());
  }
  void receive(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    pendingBuffers_ = buffers;
    pendingReceive_ = callback;
  }
  void receiveFrom(const BufferChainPtr&, const ReceiveFromCallback&) override {}
  void setOption(int level, int name, const void* value, std::size_t length) override {
    int number = 0;
    std::memcpy(&number, value, std::min(length, sizeof number));
    options[{level, name}] = number;
    optionBytes.assign(static_cast<const uint8_t*>(value), static_cast<const uint8_t*>(value) + length);
  }
  void getOption(int, int, void*, std::size_t&) override {}
  SocketAddress localAddress() const override { return local_; }
  SocketAddress remoteAddress() const override { return connectedTo; }
  void close() override {
    closed = true;
    finishReceive(ECANCELED, 0);
  }

  bool receiving() const { return static_cast<bool>(pendingReceive_); }
  std::size_t receiveSize() const { return pendingBuffers_ ? pendingBuffers_.chain().size() : 0; }
  // Answers the pending receive with (at most a buffer-chain's worth of) text.
  void deliver(const std::string& text) {
    const std::size_t n = std::min(text.size(), pendingBuffers_.chain().size());
    copyToChain(text.data(), text.data() + n, pendingBuffers_.chain().begin());
    finishReceive(0, n);
  }
  void deliverClose(int error = 0) { finishReceive(error, 0); }

  SocketAddress connectedTo;
  std::map<std::pair<int, int>, int> options;  // (level, name) -> the int set
  std::vector<uint8_t> optionBytes;             // the last value set, whole
  std::string sent;
  int sends = 0;
  std::vector<Datagram> datagrams;
  bool closed = false;
  bool failSends = false;  // sends complete with EPIPE
  bool throwOnSend = false;

 private:
  void complete(const TransferCallback& callback, std::size_t size) {
    const int error = failSends ? EPIPE : 0;
    reactor_->post(token_, [callback, error, size]() { callback(error, error ? 0 : size); });
  }

  void finishReceive(int error, std::size_t bytes) {
    if (!pendingReceive_) return;
    TransferCallback callback = std::move(pendingReceive_);
    pendingReceive_.clear();
    BufferChainPtr buffers = std::move(pendingBuffers_);
    reactor_->post(token_, [callback, error, bytes, buffers]() { callback(error, bytes); });
  }

  std::shared_ptr<Reactor> reactor_;
  std::set<std::string>* refused_;
  SocketAddress local_;
  BufferChainPtr pendingBuffers_;
  TransferCallback pendingReceive_;
  LifetimeToken token_ = makeLifetimeToken();
};

class FakeSocketFactory : public AsyncSocketFactory {
 public:
  explicit FakeSocketFactory(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {}
  std::shared_ptr<AsyncSocket> createSocket(int family, int, int) override {
    families.push_back(family);
    sockets.push_back(std::make_shared<FakeSocket>(reactor_, &refused));
    return sockets.back();
  }
  std::shared_ptr<AsyncListener> createListener(int, int, int) override { return nullptr; }

  FakeSocket& last() { return *sockets.back(); }

  std::vector<std::shared_ptr<FakeSocket>> sockets;
  std::vector<int> families;
  std::set<std::string> refused;  // addresses as toString() gives them

 private:
  std::shared_ptr<Reactor> reactor_;
};

// Knows the names the test gives it; answers through the reactor, or at once
// for the names in `known`.
class FakeResolver : public NameResolver {
 public:
  explicit FakeResolver(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {}
  void resolve(const std::string& host, const std::string& service, const Callback& callback) override {
    lookups.emplace_back(host, service);
    const Result result = answer(host, service);
    reactor_->post(token_, [callback, result]() { callback(result, !result.addresses.empty()); });
  }
  const Result* knownAnswer(const std::string& host, const std::string& service) override {
    if (!known.count(host)) return nullptr;
    knownAnswers.emplace_back(host, service);
    kept_ = answer(host, service);
    return &kept_;
  }

  std::map<std::string, std::vector<std::string>> names;
  std::set<std::string> known;
  std::vector<std::pair<std::string, std::string>> lookups;
  std::vector<std::pair<std::string, std::string>> knownAnswers;

 private:
  Result answer(const std::string& host, const std::string& service) const {
    Result result{host, service, {}};
    const auto it = names.find(host);
    if (it != names.end()) {
      const std::string port = service == "http" ? "80" : service == "https" ? "443" : service;
      for (const std::string& address : it->second) {
        result.addresses.emplace_back(address.find(':') == std::string::npos ? 2 : 10, address,
                                      static_cast<uint16_t>(std::stoi(port)));
      }
    }
    return result;
  }

  Result kept_;
  std::shared_ptr<Reactor> reactor_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace testing
}  // namespace quorvel
