#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/p2pclient/read_budget.h"

struct socket;

namespace quorvel {
namespace p2pclient {

class SctpStack;

// One SCTP connection to the device's video service: associate from
// `localPort` to the device's port 5000, send the query as one message on
// stream 0, and write every body byte that comes back to `output` until the
// device ends the association gracefully.
//
// Not event-driven: service() polls the socket and must be called on the
// loop after every stack activity (SctpStack::setActivity). Failures are
// kept as a status and a text for the caller to report.
class VideoDownload {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::uint16_t DevicePort = 5000;

  struct Settings {
    std::string query;
    std::uint16_t localPort = DevicePort;
    std::FILE* output = nullptr;
    std::string outputName;           // for messages
    std::uint64_t resendQueryAt = 0;  // send the query again once this many bytes arrived (0: never)
    std::chrono::milliseconds connectLimit{20000};
    std::chrono::milliseconds stallLimit{20000};
  };

  enum class State { Connecting, Receiving, Complete, Failed };

  VideoDownload(SctpStack& stack, ReadBudget& budget, const Settings& settings);
  ~VideoDownload();
  VideoDownload(const VideoDownload&) = delete;
  VideoDownload& operator=(const VideoDownload&) = delete;

  // Binds and starts the association; throws std::runtime_error when the
  // stack refuses.
  void start();

  // Reads what the stack has, sends the query once associated, notices
  // time limits.
  void service();

  State state() const { return state_; }
  bool done() const { return state_ == State::Complete || state_ == State::Failed; }
  int failureStatus() const { return failureStatus_; }
  const std::string& failure() const { return failure_; }
  std::uint64_t bytes() const { return bytes_; }
  std::uint16_t localPort() const { return settings_.localPort; }

  // From start() to the query sent, to the first body byte, and to the end.
  std::chrono::milliseconds connectTime() const;
  std::chrono::milliseconds firstByteTime() const;
  std::chrono::milliseconds totalTime() const;

 private:
  void onAssociationChange(const void* notification, std::size_t size);
  void sendQuery();
  bool write(const std::uint8_t* data, std::size_t size);
  void complete();
  void fail(int status, const std::string& text);
  void close();

  SctpStack& stack_;
  ReadBudget& budget_;
  Settings settings_;
  struct socket* socket_ = nullptr;
  State state_ = State::Connecting;
  int failureStatus_ = 0;
  std::string failure_;
  std::uint64_t bytes_ = 0;
  bool queryResent_ = false;
  Clock::time_point started_, queried_, firstByte_, ended_, lastProgress_;
  std::vector<std::uint8_t> buffer_;
};

}  // namespace p2pclient
}  // namespace quorvel
