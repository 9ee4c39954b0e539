#include <dirent.h>

#include <memory>

#include <gtest/gtest.h>
#include <usrsctp.h>

#include "sctp/sctp_ice_session_link.h"
#include "sctp/sctp_udp_service.h"
#include "tests/support/fake_ice_session.h"
#include "tests/support/manual_reactor.h"

namespace quorvel {
namespace testing {
namespace {

int threadCount() {
  int count = 0;
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (const dirent* entry = readdir(tasks)) count += entry->d_name[0] != '.';
    closedir(tasks);
  }
  return count;
}

// A device that only relays HTTP must not carry the stack's thread; the first
// link starts it with the settings the transfer and failure timings rely on.
TEST(SctpStack, StartsForTheFirstLinkWithThisProgramsSettings) {
  auto reactor = std::make_shared<ManualReactor>();
  const int before = threadCount();
  auto service = std::make_shared<SctpUdpService>(reactor);
  EXPECT_EQ(threadCount(), before);

  FakeIceSessionPair sessions(reactor);
  auto link = std::make_shared<SctpIceSessionLink>(reactor, service, sessions.device);
  EXPECT_GT(threadCount(), before);
  const struct {
    uint32_t (*get)();
    uint32_t value;
  } settings[] = {
      {usrsctp_sysctl_get_sctp_ecn_enable, 0},
      {usrsctp_sysctl_get_sctp_sendspace, 512 * 1024},
      {usrsctp_sysctl_get_sctp_recvspace, 512 * 1024},
      {usrsctp_sysctl_get_sctp_initial_cwnd, 10},
      {usrsctp_sysctl_get_sctp_max_burst_default, 10},
      {usrsctp_sysctl_get_sctp_delayed_sack_time_default, 20},
      {usrsctp_sysctl_get_sctp_heartbeat_interval_default, 10000},
      {usrsctp_sysctl_get_sctp_rto_min_default, 200},
      {usrsctp_sysctl_get_sctp_rto_initial_default, 1000},
      {usrsctp_sysctl_get_sctp_rto_max_default, 3000},
      {usrsctp_sysctl_get_sctp_init_rto_max_default, 10000},
      {usrsctp_sysctl_get_sctp_assoc_rtx_max_default, 5},
      {usrsctp_sysctl_get_sctp_path_rtx_max_default, 5},
      {usrsctp_sysctl_get_sctp_nr_outgoing_streams_default, 16},
  };
  for (const auto& setting : settings) EXPECT_EQ(setting.get(), setting.value) << &setting - settings;
  link.reset();
  service.reset();
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
