#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct socket;

namespace quorvel {
namespace p2pclient {

class SctpStack;

// The stand-in device's video service (--answer --serve): takes SCTP
// associations on port 5000 and answers every connection's first message
// with the bytes of one file, in messages of at most 64 KiB on the stream
// the query came on, then ends the association gracefully. A plain usrsctp
// sender without the daemon's layers: the baseline of the stream benchmark
// and the device of the tool's own tests.
//
// Polled like VideoDownload: service() after every stack activity.
class VideoServer {
 public:
  // "served port=N query=TEXT bytes=N cpu-ms=N", once per connection that
  // ended; cpu-ms is the process's CPU time from the query to the end.
  using Report = std::function<void(const std::string&)>;

  VideoServer(SctpStack& stack, const std::string& path, Report report);
  ~VideoServer();
  VideoServer(const VideoServer&) = delete;
  VideoServer& operator=(const VideoServer&) = delete;

  // Listens; throws std::runtime_error when the stack or the file refuses.
  void start();
  void service();

 private:
  struct Connection {
    struct socket* socket = nullptr;
    std::uint16_t port = 0;
    std::string query;
    std::uint16_t stream = 0;
    std::FILE* file = nullptr;
    std::vector<std::uint8_t> pending;  // read from the file, not yet taken by the stack
    std::uint64_t sent = 0;
    long long cpuAtQuery = 0;
    bool shutDown = false;
    bool ended = false;
  };

  void accept();
  void serve(Connection& connection);
  void finish(Connection& connection);

  SctpStack& stack_;
  std::string path_;
  Report report_;
  struct socket* listener_ = nullptr;
  std::vector<std::unique_ptr<Connection>> connections_;
};

}  // namespace p2pclient
}  // namespace quorvel
