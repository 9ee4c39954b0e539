// The agent over real UDP sockets: a Binding request to a coturn server that
// this test starts on a free loopback port. Retransmission timing is the unit
// tests' job (fake time).

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/asio_reactor.h"
#include "core/random_source.h"
#include "net/asio_socket_factory.h"
#include "net/buffer_pool.h"
#include "stun/integrity.h"
#include "stun/net_stun_agent.h"

namespace quorvel {
namespace stun {
namespace {

std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    const std::string candidate = dir + "/" + name;
    if (!dir.empty() && access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return std::string();
}

// A port on 127.0.0.1 that was free a moment ago.
uint16_t freeUdpPort() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("no free UDP port");
  }
  close(fd);
  return ntohs(address.sin_port);
}

// coturn in STUN-only mode on 127.0.0.1, in its own temporary directory; always
// stopped when the test ends, however it ends.
class Coturn {
 public:
  ~Coturn() { stop(); }

  void start(const std::string& program, uint16_t port) {
    char dirTemplate[] = "/tmp/stun-e2e-XXXXXX";
    dir_ = mkdtemp(dirTemplate);
    chmod(dir_.c_str(), 0755);
    logPath_ = dir_ + "/turnserver.log";
    const std::string portText = std::to_string(port);
    std::vector<std::string> args;
    // As root it runs unprivileged, as the packaged service would.
    if (geteuid() == 0) args = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"};
    for (const std::string& arg : {program, std::string("-n"), std::string("-S"), std::string("-z"),
                                   std::string("--no-cli"), std::string("--no-tls"), std::string("--no-dtls"),
                                   std::string("--no-tcp"), std::string("-L"), std::string("127.0.0.1"),
                                   std::string("-p"), portText, std::string("--log-file"), std::string("stdout"),
                                   std::string("--simple-log"), std::string("-v")}) {
      args.push_back(arg);
    }

    pid_ = fork();
    if (pid_ == 0) {
      const int log = open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(log, 1);
      dup2(log, 2);
      if (chdir(dir_.c_str()) != 0) _exit(126);
      std::vector<char*> argv;
      for (std::string& arg : args) argv.push_back(&arg[0]);
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      _exit(127);
    }
  }

  bool running() {
    if (pid_ <= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    return true;
  }

  std::string logText() const {
    std::ifstream in(logPath_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  void stop() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      // It takes a second or more to go; bounded, then forced.
      for (int i = 0; i < 100 && running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
      }
    }
    if (!dir_.empty()) {
      unlink(logPath_.c_str());
      rmdir(dir_.c_str());
      dir_.clear();
    }
  }

 private:
  pid_t pid_ = -1;
  std::string dir_;
  std::string logPath_;
};

// The agent with a real reactor and a bound UDP socket whose datagrams it
// classifies.
class AgentOnLoopback {
 public:
  AgentOnLoopback() {
    socket_ = factory_.createSocket(2, 2, 17);
    socket_->bind(SocketAddress(2, SocketAddress::Loopback, 0));
    agent_ = std::make_shared<NetStunAgent>(reactor_, pool_, Duration::milliseconds(5));
    receive();
  }
  ~AgentOnLoopback() { socket_->close(); }

  MessagePtr bindingRequest() {
    auto message = std::make_shared<Message>(Message::Request, Message::MethodBinding, makeTransactionId(random_));
    message->addStringAttribute(Message::Software, "Quorvel ICE Agent");
    return message;
  }

  // Runs the loop until the request ends, at most `bound`.
  void runRequest(const MessagePtr& request, uint16_t port, Duration rto, Duration limit, Duration bound) {
    agent_->sendRequest(request, socket_, SocketAddress(2, "127.0.0.1", port), rto, limit, "",
                        [this](int error, const MessagePtr& response, const SocketAddress& from,
                               const SocketAddress& local) {
                          ++calls;
                          this->error = error;
                          this->response = response;
                          this->from = from;
                          this->local = local;
                          reactor_->stop();
                        });
    reactor_->scheduleAfter(token_, bound, [this]() { reactor_->stop(); });
    reactor_->run();
  }

  SocketAddress localAddress() const { return socket_->localAddress(); }

  int calls = 0;
  int error = -1;
  MessagePtr response;
  SocketAddress from, local;

 private:
  void receive() {
    BufferChainPtr buffers(pool_->allocate(1500));
    socket_->receiveFrom(buffers, [this, buffers](int error, std::size_t bytes, const SocketAddress& sender) {
      if (error) return;  // closed
      std::vector<uint8_t> datagram(bytes);
      copyFromChain(buffers.chain().begin(), buffers.chain().begin() + bytes, datagram.data());
      agent_->handleDatagram(socket_, sender, datagram.data(), datagram.size(), false, {});
      receive();
    });
  }

  // Declared first: operations still queued in the reactor hold buffers,
  // which must go back to a pool that still exists.
  std::shared_ptr<BufferPool> pool_ = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<AsioReactor> reactor_ = std::make_shared<AsioReactor>();
  AsioSocketFactory factory_{reactor_};
  PseudoRandomSource random_{std::make_shared<SystemTimeProvider>()};
  std::shared_ptr<AsyncSocket> socket_;
  std::shared_ptr<NetStunAgent> agent_;
  LifetimeToken token_ = makeLifetimeToken();
};

TEST(StunServerTest, BindingRequestReturnsTheSocketsOwnAddress) {
  const std::string turnserver = findProgram("turnserver");
  if (turnserver.empty()) GTEST_SKIP() << "turnserver is not installed (Debian package coturn)";
  if (geteuid() == 0 && findProgram("setpriv").empty()) GTEST_SKIP() << "setpriv is missing";

  const uint16_t port = freeUdpPort();
  Coturn server;
  server.start(turnserver, port);

  AgentOnLoopback client;
  const MessagePtr request = client.bindingRequest();
  // The retransmissions cover the server's start-up.
  client.runRequest(request, port, Duration::milliseconds(100), Duration::seconds(10), Duration::seconds(15));

  ASSERT_EQ(client.calls, 1);
  ASSERT_EQ(client.error, 0) << "coturn did not answer on port " << port << "\n" << server.logText();
  ASSERT_TRUE(client.response);
  EXPECT_EQ(client.response->messageClass(), Message::SuccessResponse);
  EXPECT_EQ(client.response->method(), Message::MethodBinding);
  EXPECT_EQ(client.response->transactionId(), request->transactionId());
  EXPECT_EQ(client.from, SocketAddress(2, "127.0.0.1", port));
  EXPECT_EQ(client.local, client.localAddress());
  EXPECT_EQ(client.response->getMappedAddress(), client.localAddress());
  // The server speaks the current framing: the XOR form is there.
  EXPECT_TRUE(client.response->findAttribute(Message::XorMappedAddress));
}

}  // namespace
}  // namespace stun
}  // namespace quorvel
