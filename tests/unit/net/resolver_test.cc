#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/asio_reactor.h"
#include "net/local_network_info.h"
#include "net/name_resolver.h"
#include "tests/support/log_capture.h"
#include "tests/support/wall_clock_steps.h"

namespace quorvel {
namespace {

// Lookups run in a network namespace of their own (only a loopback that is
// down), so a name that is not in the hosts file fails at once instead of
// sending a query to the machine's name server.
class ResolverTest : public ::testing::Test {
 protected:
  void SetUp() override { capture_ = testing::LogCapture::install(); }
  ~ResolverTest() override {
    if (!hostsPath_.empty()) ::unlink(hostsPath_.c_str());
  }

  // Runs `body` on a thread that has left the machine's network; the
  // resolver's worker, started there, inherits that. With `ownHosts`, the
  // thread also sees a hosts file of the test's own (see writeHosts) over
  // /etc/hosts, in a mount namespace of its own.
  template <typename F>
  void isolated(F body, bool ownHosts = false) {
    if (ownHosts) {
      if (!hostsPath_.empty()) ::unlink(hostsPath_.c_str());
      char name[] = "/tmp/ferrule-hosts-XXXXXX";
      const int fd = ::mkstemp(name);
      ASSERT_GE(fd, 0);
      ::close(fd);
      hostsPath_ = name;
    }
    bool unshared = false;
    std::thread thread([&] {
      if (::unshare(CLONE_NEWNET | (ownHosts ? CLONE_NEWNS : 0)) != 0) return;
      if (ownHosts && (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                       ::mount(hostsPath_.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0)) {
        return;
      }
      unshared = true;
      reactor_ = std::make_shared<AsioReactor>(wallClock_);
      resolver_ = std::make_unique<NetNameResolver>(reactor_);
      body();
      resolver_.reset();
      reactor_.reset();
    });
    thread.join();
    if (!unshared) GTEST_SKIP() << "cannot make network and mount namespaces (needs root)";
  }

  // In place: the bind mount shows the file's inode.
  void writeHosts(const std::string& text) {
    const int fd = ::open(hostsPath_.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
  }

  // Resolves one name and runs the loop until the answer is in (bounded).
  NameResolver::Result resolve(const std::string& host, const std::string& service, bool* found = nullptr) {
    NameResolver::Result answer;
    bool answered = false;
    resolver_->resolve(host, service, [&, this](const NameResolver::Result& result, bool ok) {
      EXPECT_TRUE(reactor_->isLoopThread());
      answer = result;
      answered = true;
      if (found) *found = ok;
      reactor_->stop();
    });
    LifetimeToken guard = makeLifetimeToken();
    reactor_->scheduleAfter(guard, Duration::seconds(20), [this] { reactor_->stop(); });
    reactor_->ioContext().restart();  // a loop stopped before goes again
    reactor_->run();
    EXPECT_TRUE(answered) << "no answer for " << host;
    return answer;
  }

  // The system's wall clock, moved by `step` as NTP would move it.
  struct SteppedWallClock : TimeProvider {
    Time now() override { return SystemTimeProvider::instance().now() + step; }
    Duration step;
  };

  std::shared_ptr<SteppedWallClock> wallClock_ = std::make_shared<SteppedWallClock>();
  std::shared_ptr<AsioReactor> reactor_;
  std::unique_ptr<NetNameResolver> resolver_;
  LifetimeToken token_ = makeLifetimeToken();
  std::shared_ptr<testing::LogCapture> capture_;
  std::string hostsPath_;
};

TEST_F(ResolverTest, FixedServiceNamesGiveTheirPortToEveryAddress) {
  isolated([&] {
    bool found = false;
    const NameResolver::Result result = resolve("localhost", "stun", &found);
    EXPECT_TRUE(found);
    EXPECT_EQ(result.host, "localhost");
    EXPECT_EQ(result.service, "stun");
    ASSERT_FALSE(result.addresses.empty());
    bool sawV4Loopback = false;
    for (const SocketAddress& address : result.addresses) {
      EXPECT_TRUE(address.isLoopback()) << address;
      EXPECT_EQ(address.port(), 3478) << address;
      sawV4Loopback |= address == SocketAddress(AF_INET, "127.0.0.1", 3478);
    }
    EXPECT_TRUE(sawV4Loopback);
  });
}

TEST_F(ResolverTest, OtherServicesGoToTheSystemAsTheyAre) {
  isolated([&] {
    const NameResolver::Result numeric = resolve("127.0.0.1", "");
    ASSERT_FALSE(numeric.addresses.empty());
    EXPECT_EQ(numeric.addresses.front(), SocketAddress(AF_INET, "127.0.0.1", 0));
    // No hints: one entry per socket type, duplicates kept.
    EXPECT_GT(numeric.addresses.size(), 1u);
    EXPECT_TRUE(std::all_of(numeric.addresses.begin(), numeric.addresses.end(),
                            [&](const SocketAddress& a) { return a == numeric.addresses.front(); }));
  });
}

// Address literals with a port need no worker thread and no log line.
TEST_F(ResolverTest, LiteralsAreAnsweredWithoutTheSystem) {
  struct Case {
    const char* host;
    const char* service;
    const char* address;  // empty: not a literal the fast path takes
  } cases[] = {{"127.0.0.1", "8081", "127.0.0.1:8081"}, {"::1", "http", "[::1]:80"},
               {"10.0.0.1", "https", "10.0.0.1:443"},   {"::1", "65535", "[::1]:65535"},
               {"::1", "65536", ""},                     {"127.0.0.1", "", ""},
               {"127.0.0.1", "stun", ""},                {"localhost", "80", ""},
               {"127.0.0.1", "123456", ""}};
  for (const Case& c : cases) {
    NameResolver::Result result;
    const bool literal = NetNameResolver::resolveLiteral(c.host, c.service, result);
    EXPECT_EQ(literal, c.address[0] != '\0') << c.host << " " << c.service;
    if (!literal) continue;
    ASSERT_EQ(result.addresses.size(), 1u);
    EXPECT_EQ(result.addresses[0].toString(), c.address);
  }
  isolated([&] {
    bool found = false;
    EXPECT_EQ(resolve("::1", "8081", &found).addresses, std::vector<SocketAddress>{SocketAddress(AF_INET6, "::1", 8081)});
    EXPECT_TRUE(found);
    EXPECT_FALSE(capture_->contains("Resolving host ::1"));
  });
}

TEST_F(ResolverTest, UnresolvableNameIsAnEmptyListAndOneNotice) {
  isolated([&] {
    bool found = true;
    const NameResolver::Result result = resolve("nonexistent.invalid", "http", &found);
    EXPECT_FALSE(found);
    EXPECT_TRUE(result.addresses.empty());
    std::size_t notices = 0;
    for (const auto& line : capture_->lines()) {
      if (line.log == "resolver" && line.level == log::Notice) {
        ++notices;
        EXPECT_EQ(line.message.rfind("Failed to resolve host nonexistent.invalid, service http: error code ", 0), 0u)
            << line.message;
      }
    }
    EXPECT_EQ(notices, 1u);
  });
}

TEST_F(ResolverTest, ResultsForADestroyedResolverAreDropped) {
  isolated([&] {
    bool called = false;
    resolver_->resolve("localhost", "http", [&called](const NameResolver::Result&, bool) { called = true; });
    resolver_.reset();  // joins the worker; its posted result has lost its token
    reactor_->post(token_, [this] { reactor_->stop(); });
    reactor_->run();
    EXPECT_FALSE(called);
  });
}

TEST_F(ResolverTest, ReusesFoundAddressesButNotFailures) {
  isolated([&] {
    const auto first = [&](const char* host) { return resolve(host, "http").addresses.at(0); };
    writeHosts("198.18.0.1 kept.test\n");
    EXPECT_EQ(first("kept.test"), SocketAddress(AF_INET, "198.18.0.1", 80));
    EXPECT_TRUE(resolve("later.test", "http").addresses.empty());
    writeHosts("198.18.0.2 kept.test\n198.18.0.3 later.test\n");
    // Within its lifetime the first answer stands; the failure was not kept.
    EXPECT_EQ(first("kept.test"), SocketAddress(AF_INET, "198.18.0.1", 80));
    EXPECT_EQ(first("later.test"), SocketAddress(AF_INET, "198.18.0.3", 80));
  }, true);
}

// Answers age on the monotonic clock: a wall clock stepped by years after an
// answer came neither expires it early nor, stepped back, keeps it for hours.
TEST_F(ResolverTest, AWallClockStepDoesNotAgeAnswers) {
  for (const testing::WallClockStep& step : testing::wallClockSteps()) {
    isolated([&] {
      writeHosts("198.18.0.1 kept.test\n");
      EXPECT_EQ(resolve("kept.test", "http").addresses.at(0), SocketAddress(AF_INET, "198.18.0.1", 80));
      wallClock_->step = step.by;
      writeHosts("198.18.0.2 kept.test\n");
      EXPECT_EQ(resolve("kept.test", "http").addresses.at(0), SocketAddress(AF_INET, "198.18.0.1", 80)) << step.name;
    }, true);
    wallClock_->step = Duration();
  }
}

// What the HTTP client may take without a turn of the loop: literals, and
// names whose lookup is still fresh, logged as a lookup would be.
TEST_F(ResolverTest, KnownAnswersAreLiteralsAndFreshLookupsOnly) {
  isolated([&] {
    const NameResolver::Result* literal = resolver_->knownAnswer("127.0.0.1", "8081");
    ASSERT_NE(literal, nullptr);
    EXPECT_EQ(literal->addresses, std::vector<SocketAddress>{SocketAddress(AF_INET, "127.0.0.1", 8081)});
    writeHosts("198.18.0.1 kept.test\n");
    EXPECT_EQ(resolver_->knownAnswer("kept.test", "http"), nullptr);
    resolve("kept.test", "http");
    log::setLevel("resolver", log::Debug);
    const std::size_t before = capture_->lines().size();
    const NameResolver::Result* kept = resolver_->knownAnswer("kept.test", "http");
    log::setLevel("resolver", log::Notice);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->addresses.at(0), SocketAddress(AF_INET, "198.18.0.1", 80));
    EXPECT_EQ(resolver_->knownAnswer("kept.test", "https"), nullptr);
    std::vector<std::string> lines;
    for (std::size_t i = before; i < capture_->lines().size(); ++i) lines.push_back(capture_->lines()[i].message);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Resolving host kept.test, service http");
    EXPECT_EQ(lines[1], "kept.test -> 198.18.0.1");
  }, true);
}

struct Job {
  int input = 0;
  int output = 0;
};

TEST(WorkRunnerTest, RunsItemsInOrderAndSurvivesThrows) {
  auto capture = testing::LogCapture::install();
  std::mutex mutex;
  std::vector<int> done;
  std::atomic<int> count{0};
  {
    WorkRunner<Job> runner(
        [&mutex](Job& job) {
          std::lock_guard<std::mutex> lock(mutex);
          if (job.input == 2) throw std::runtime_error("bad item");
          job.output = job.input * 10;
        },
        [&](const std::shared_ptr<Job>& job) {
          if (job->input == 3) throw std::runtime_error("bad callback");
          std::lock_guard<std::mutex> lock(mutex);
          done.push_back(job->output);
          ++count;
        });
    std::thread other([&runner] {
      for (int i = 1; i <= 4; ++i) {
        auto job = std::make_shared<Job>();
        job->input = i;
        runner.enqueue(job);
      }
    });
    other.join();
    for (int i = 0; i < 2000 && count.load() < 3; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(done, (std::vector<int>{10, 0, 40}));
  EXPECT_TRUE(capture->contains("Work item threw exception: bad item"));
  EXPECT_TRUE(capture->contains("Work callback threw exception: bad callback"));
}

TEST(LocalNetworkInfoTest, ListsLoopbackWithItsFlag) {
  LinuxLocalNetworkInfo info;
  std::vector<InterfaceInfo> interfaces;
  interfaces.push_back(InterfaceInfo{"kept", SocketAddress(), false, false});
  info.getInterfaces(interfaces);
  ASSERT_GT(interfaces.size(), 1u);
  EXPECT_EQ(interfaces.front().name, "kept");
  bool loopback = false;
  for (const InterfaceInfo& entry : interfaces) {
    if (entry.address == SocketAddress(AF_INET, "127.0.0.1", 0)) {
      loopback = true;
      EXPECT_TRUE(entry.loopback);
      EXPECT_TRUE(entry.up);
      EXPECT_EQ(entry.address.length(), 16u);
    }
    if (entry.name != "kept") {
      const int family = entry.address.family();
      EXPECT_TRUE(family == AF_INET || family == AF_INET6) << entry.name;
    }
  }
  EXPECT_TRUE(loopback);
  // The interface for a family is never the loopback one.
  const InterfaceInfo v4 = info.getInterface(AF_INET);
  EXPECT_FALSE(v4.loopback);
  EXPECT_EQ(v4.address.valid(), !v4.name.empty());
  EXPECT_TRUE(v4.name.empty() || v4.address.family() == AF_INET) << v4.name;
}

}  // namespace
}  // namespace quorvel
