#include "tools/p2pclient/video_server.h"

#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <usrsctp.h>

#include "tools/p2pclient/sctp_stack.h"
#include "tools/p2pclient/video_download.h"

namespace quorvel {
namespace p2pclient {

namespace {

constexpr std::size_t MessageSize = 64 * 1024;

// This process's CPU time so far, for the stream benchmark's baseline.
long long cpuMilliseconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000LL +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

// usrsctp_recvv writes the flags and info unconditionally: every pointer
// must be valid.
// Notifications (the listener's subscription is inherited) are skipped.
ssize_t receive(struct socket* socket, void* data, std::size_t size, sctp_rcvinfo& info, unsigned& infoType) {
  for (;;) {
    socklen_t infoSize = sizeof info;
    sockaddr_conn from;
    socklen_t fromSize = sizeof from;
    int flags = 0;
    infoType = 0;
    const ssize_t got = usrsctp_recvv(socket, data, size, reinterpret_cast<sockaddr*>(&from), &fromSize, &info,
                                      &infoSize, &infoType, &flags);
    if (got <= 0 || !(flags & MSG_NOTIFICATION)) return got;
  }
}

}  // namespace

VideoServer::VideoServer(SctpStack& stack, const std::string& path, Report report)
    : stack_(stack), path_(path), report_(std::move(report)) {}

VideoServer::~VideoServer() {
  // A body not sent in full must not look like a whole one: abort.
  for (auto& connection : connections_) {
    if (!connection->ended && !connection->shutDown) {
      const linger abortive{1, 0};
      usrsctp_setsockopt(connection->socket, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    }
    finish(*connection);
  }
  if (listener_ != nullptr) usrsctp_close(listener_);
}

void VideoServer::start() {
  std::FILE* probe = std::fopen(path_.c_str(), "rb");
  if (probe == nullptr) throw std::runtime_error("cannot read " + path_ + ": " + std::strerror(errno));
  std::fclose(probe);
  listener_ = stack_.openSocket();
  sockaddr_conn local;
  std::memset(&local, 0, sizeof local);
  local.sconn_family = AF_CONN;
  local.sconn_port = htons(VideoDownload::DevicePort);
  local.sconn_addr = stack_.address();
  if (usrsctp_bind(listener_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
      usrsctp_listen(listener_, 8) != 0) {
    throw std::runtime_error(std::string("cannot listen on SCTP port 5000: ") + std::strerror(errno));
  }
}

void VideoServer::service() {
  accept();
  for (auto& connection : connections_) {
    if (!connection->ended) serve(*connection);
  }
}

void VideoServer::accept() {
  for (;;) {
    sockaddr_conn peer;
    socklen_t size = sizeof peer;
    struct socket* accepted = usrsctp_accept(listener_, reinterpret_cast<sockaddr*>(&peer), &size);
    if (accepted == nullptr) return;
    usrsctp_set_non_blocking(accepted, 1);
    const int on = 1;
    usrsctp_setsockopt(accepted, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on);
    usrsctp_setsockopt(accepted, IPPROTO_SCTP, SCTP_RECVRCVINFO, &on, sizeof on);
    auto connection = std::make_unique<Connection>();
    connection->socket = accepted;
    connection->port = ntohs(peer.sconn_port);
    connections_.push_back(std::move(connection));
  }
}

void VideoServer::serve(Connection& connection) {
  if (connection.file == nullptr) {
    char text[1024];
    sctp_rcvinfo info;
    unsigned infoType = 0;
    const ssize_t got = receive(connection.socket, text, sizeof text, info, infoType);
    if (got <= 0) {
      if (got == 0 || (errno != EWOULDBLOCK && errno != EAGAIN)) finish(connection);
      return;
    }
    connection.query.assign(text, static_cast<std::size_t>(got));
    connection.stream = infoType == SCTP_RECVV_RCVINFO ? info.rcv_sid : 0;
    connection.file = std::fopen(path_.c_str(), "rb");
    if (connection.file == nullptr) return finish(connection);
    connection.cpuAtQuery = cpuMilliseconds();
  }
  // Later messages on the connection are read and dropped, as the device
  // does while a body is streaming.
  char ignored[1024];
  sctp_rcvinfo info;
  unsigned infoType = 0;
  while (receive(connection.socket, ignored, sizeof ignored, info, infoType) > 0) {
  }
  for (int round = 0; round < 64 && !connection.shutDown; ++round) {
    if (connection.pending.empty()) {
      connection.pending.resize(MessageSize);
      const std::size_t read = std::fread(connection.pending.data(), 1, MessageSize, connection.file);
      connection.pending.resize(read);
      if (read == 0) {
        // Everything sent: SHUTDOWN once the stack has it all acknowledged.
        usrsctp_shutdown(connection.socket, SHUT_WR);
        connection.shutDown = true;
        break;
      }
    }
    sctp_sndinfo send;
    std::memset(&send, 0, sizeof send);
    send.snd_sid = connection.stream;
    const ssize_t sent = usrsctp_sendv(connection.socket, connection.pending.data(), connection.pending.size(),
                                       nullptr, 0, &send, sizeof send, SCTP_SENDV_SNDINFO, 0);
    if (sent < 0) {
      if (errno != EWOULDBLOCK && errno != EAGAIN) finish(connection);
      break;
    }
    connection.sent += connection.pending.size();
    connection.pending.clear();
  }
  stack_.flush();
  if (connection.shutDown && !connection.ended) {
    // The client's own close ends the association; until then keep it.
    char probe[16];
    const ssize_t got = receive(connection.socket, probe, sizeof probe, info, infoType);
    if (got == 0 || (got < 0 && errno != EWOULDBLOCK && errno != EAGAIN)) finish(connection);
  }
}

void VideoServer::finish(Connection& connection) {
  if (connection.ended) return;
  connection.ended = true;
  report_("served port=" + std::to_string(connection.port) + " query=" + connection.query +
          " bytes=" + std::to_string(connection.sent) +
          " cpu-ms=" + std::to_string(cpuMilliseconds() - connection.cpuAtQuery));
  if (connection.file != nullptr) std::fclose(connection.file);
  connection.file = nullptr;
  usrsctp_close(connection.socket);
  connection.socket = nullptr;
  stack_.flush();
}

}  // namespace p2pclient
}  // namespace quorvel
