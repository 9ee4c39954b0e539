#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "core/asio_reactor.h"
#include "net/asio_socket_factory.h"
#include "net/buffer_chain_ptr.h"
#include "net/buffer_pool.h"

namespace quorvel {
namespace testing {

// Socket tests on a real reactor: the test starts operations, run() drives
// the loop until a callback calls stop(), and a guard timer ends a test that
// would otherwise hang.
class SocketLoopFixture : public ::testing::Test {
 protected:
  explicit SocketLoopFixture(std::size_t bufferSize) : pool_(bufferSize, 0, 0) {}

  void run() {
    // A token per run: a guard left over from an earlier run must not fire.
    LifetimeToken guard = makeLifetimeToken();
    reactor_->scheduleAfter(guard, Duration::seconds(10), [this] {
      timedOut_ = true;
      reactor_->stop();
    });
    reactor_->run();
    EXPECT_FALSE(timedOut_) << "the loop was stopped by the guard timer";
  }

  void stop() { reactor_->stop(); }

  std::shared_ptr<AsyncSocket> udpOnLoopback() {
    auto socket = plain_.createSocket(AF_INET, SOCK_DGRAM, 0);
    socket->bind(SocketAddress(AF_INET, SocketAddress::Loopback, 0));
    return socket;
  }

  // Connects and returns the callback's code.
  int connect(AsyncSocket& socket, const SocketAddress& where) {
    int result = -1;
    socket.connect(where, [&](int error) {
      result = error;
      stop();
    });
    run();
    return result;
  }

  // Writes to a peer that has gone, until a write fails (at most five):
  // the first may still be taken by the kernel, and the reset it draws
  // makes a later one fail. The error, or 0 if none failed.
  int writeUntilRefused(AsyncSocket& socket) {
    int error = 0;
    for (int attempt = 0; attempt < 5 && error == 0; ++attempt) {
      socket.send(chainOf(std::string(1000, 'x')), [&](int e, std::size_t) {
        error = e;
        stop();
      });
      run();
    }
    return error;
  }

  BufferChainPtr chainOf(const std::string& text) {
    BufferChain chain = pool_.allocate(text.size());
    copyToChain(text.data(), text.data() + text.size(), chain.begin());
    return BufferChainPtr(chain);
  }

  static std::string firstBytes(const BufferChainPtr& buffers, std::size_t n) {
    return std::string(buffers.chain().begin(), buffers.chain().begin() + n);
  }

  std::shared_ptr<AsioReactor> reactor_ = std::make_shared<AsioReactor>();
  BufferPool pool_;
  AsioSocketFactory plain_{reactor_};
  bool timedOut_ = false;
};

}  // namespace testing
}  // namespace quorvel
