#include "tools/p2pclient/video_download.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <usrsctp.h>

#include "tools/p2pclient/exit_status.h"
#include "tools/p2pclient/sctp_stack.h"

namespace quorvel {
namespace p2pclient {

namespace {

// The device sends messages of at most 64 KiB; one read takes one.
constexpr std::size_t ReadSize = 64 * 1024;

std::chrono::milliseconds since(VideoDownload::Clock::time_point from, VideoDownload::Clock::time_point to) {
  if (from == VideoDownload::Clock::time_point() || to < from) return std::chrono::milliseconds(0);
  return std::chrono::duration_cast<std::chrono::milliseconds>(to - from);
}

std::string seconds(std::chrono::milliseconds limit) {
  const long long ms = limit.count();
  return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

sockaddr_conn endpoint(void* address, std::uint16_t port) {
  sockaddr_conn end;
  std::memset(&end, 0, sizeof end);
  end.sconn_family = AF_CONN;
  end.sconn_port = htons(port);
  end.sconn_addr = address;
  return end;
}

}  // namespace

VideoDownload::VideoDownload(SctpStack& stack, ReadBudget& budget, const Settings& settings)
    : stack_(stack), budget_(budget), settings_(settings), buffer_(ReadSize) {}

VideoDownload::~VideoDownload() { close(); }

void VideoDownload::start() {
  socket_ = stack_.openSocket();
  started_ = Clock::now();
  sockaddr_conn local = endpoint(stack_.address(), settings_.localPort);
  if (usrsctp_bind(socket_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    throw std::runtime_error("cannot bind SCTP port " + std::to_string(settings_.localPort) + ": " +
                             std::strerror(errno));
  }
  // Both ends are the one registered address; the ports tell them apart.
  sockaddr_conn device = endpoint(stack_.address(), DevicePort);
  if (usrsctp_connect(socket_, reinterpret_cast<sockaddr*>(&device), sizeof device) != 0 && errno != EINPROGRESS) {
    throw std::runtime_error(std::string("cannot start the SCTP association: ") + std::strerror(errno));
  }
  stack_.flush();  // the INIT
}

void VideoDownload::service() {
  // Bounded, so that one busy connection leaves the loop to the others.
  for (int round = 0; round < 64 && !done(); ++round) {
    std::size_t room = buffer_.size();
    if (state_ == State::Receiving) {
      room = budget_.available(room);
      if (room == 0) break;
    }
    sctp_rcvinfo info;
    socklen_t infoSize = sizeof info;
    sockaddr_conn from;
    socklen_t fromSize = sizeof from;
    unsigned infoType = 0;
    int flags = 0;
    const ssize_t got = usrsctp_recvv(socket_, buffer_.data(), room, reinterpret_cast<sockaddr*>(&from), &fromSize,
                                      &info, &infoSize, &infoType, &flags);
    if (got < 0) {
      const int error = errno;
      if (error == EWOULDBLOCK || error == EAGAIN || (state_ == State::Connecting && error == ENOTCONN)) break;
      if (state_ == State::Connecting) {
        fail(ExitAssociationFailure, std::string("the device refused the SCTP association: ") + std::strerror(error));
      } else {
        fail(ExitStreamCut, "the video stream was cut short after " + std::to_string(bytes_) + " bytes: " +
                                std::strerror(error));
      }
      break;
    }
    if (flags & MSG_NOTIFICATION) {
      onAssociationChange(buffer_.data(), static_cast<std::size_t>(got));
      continue;
    }
    if (got == 0) {
      if (state_ == State::Receiving) {
        complete();
      } else {
        fail(ExitAssociationFailure, "the device closed the SCTP association before it was up");
      }
      break;
    }
    budget_.spend(static_cast<std::size_t>(got));
    if (!write(buffer_.data(), static_cast<std::size_t>(got))) break;
    if (settings_.resendQueryAt != 0 && !queryResent_ && bytes_ >= settings_.resendQueryAt) {
      queryResent_ = true;
      sendQuery();
    }
  }
  if (done()) return;
  const auto now = Clock::now();
  if (state_ == State::Connecting && now - started_ > settings_.connectLimit) {
    fail(ExitAssociationFailure, "no SCTP association with the device within " + seconds(settings_.connectLimit));
  } else if (state_ == State::Receiving && now - lastProgress_ > settings_.stallLimit) {
    fail(ExitStreamCut, "the video stream was cut short after " + std::to_string(bytes_) + " bytes: nothing for " +
                            seconds(settings_.stallLimit));
  }
}

void VideoDownload::onAssociationChange(const void* notification, std::size_t size) {
  const auto* change = static_cast<const sctp_assoc_change*>(notification);
  if (size < sizeof(sctp_assoc_change) || change->sac_type != SCTP_ASSOC_CHANGE) return;
  switch (change->sac_state) {
    case SCTP_COMM_UP:
      if (state_ == State::Connecting) {
        state_ = State::Receiving;
        sendQuery();
      }
      break;
    case SCTP_CANT_STR_ASSOC:
      fail(ExitAssociationFailure, "the device refused the SCTP association on port " + std::to_string(DevicePort));
      break;
    case SCTP_COMM_LOST:
      if (state_ == State::Connecting) {
        fail(ExitAssociationFailure, "the device refused the SCTP association on port " + std::to_string(DevicePort));
      } else {
        fail(ExitStreamCut,
             "the video stream was cut short after " + std::to_string(bytes_) + " bytes: the association was lost");
      }
      break;
    default:
      break;
  }
}

void VideoDownload::sendQuery() {
  // One message on stream 0; the device answers on the stream the query
  // came on.
  sctp_sndinfo info;
  std::memset(&info, 0, sizeof info);
  info.snd_sid = 0;
  info.snd_ppid = 0;
  const ssize_t sent = usrsctp_sendv(socket_, settings_.query.data(), settings_.query.size(), nullptr, 0, &info,
                                     sizeof info, SCTP_SENDV_SNDINFO, 0);
  if (sent != static_cast<ssize_t>(settings_.query.size())) {
    fail(ExitAssociationFailure, std::string("the SCTP association took no query: ") + std::strerror(errno));
    return;
  }
  stack_.flush();
  if (queried_ == Clock::time_point()) queried_ = Clock::now();
  lastProgress_ = Clock::now();
}

bool VideoDownload::write(const std::uint8_t* data, std::size_t size) {
  if (bytes_ == 0) firstByte_ = Clock::now();
  lastProgress_ = Clock::now();
  bytes_ += size;
  if (std::fwrite(data, 1, size, settings_.output) != size) {
    fail(ExitLocalFailure, "cannot write " + settings_.outputName + ": " + std::strerror(errno));
    return false;
  }
  return true;
}

void VideoDownload::complete() {
  state_ = State::Complete;
  ended_ = Clock::now();
  if (std::fflush(settings_.output) != 0) {
    fail(ExitLocalFailure, "cannot write " + settings_.outputName + ": " + std::strerror(errno));
    return;
  }
  close();
}

void VideoDownload::fail(int status, const std::string& text) {
  state_ = State::Failed;
  ended_ = Clock::now();
  failureStatus_ = status;
  failure_ = text;
  close();
}

void VideoDownload::close() {
  if (socket_ == nullptr) return;
  if (state_ != State::Complete) {
    // Tell the device at once rather than leave it sending into the void.
    const linger abortive{1, 0};
    usrsctp_setsockopt(socket_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  }
  usrsctp_close(socket_);
  socket_ = nullptr;
  stack_.flush();
}

std::chrono::milliseconds VideoDownload::connectTime() const { return since(started_, queried_); }

std::chrono::milliseconds VideoDownload::firstByteTime() const { return since(queried_, firstByte_); }

std::chrono::milliseconds VideoDownload::totalTime() const { return since(queried_, ended_); }

}  // namespace p2pclient
}  // namespace quorvel
