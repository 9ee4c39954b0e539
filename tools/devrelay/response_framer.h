#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/buffer.hpp>

namespace quorvel {
namespace devrelay {

// Follows the response a device posts back (head and body, as the body of
// its reply POST) without changing a byte of it. The outside client gets the
// device's own framing; parsing alongside tells where the response ends, so
// the outside connection can stay open for its next request, and holds the
// head back until it is complete, so a malformed one still gets a clean 502.
class ResponseFramer {
 public:
  // A HEAD request's response has no body whatever its fields say.
  explicit ResponseFramer(bool headRequest);
  ~ResponseFramer();

  // Takes the next piece of the reply body. On success, `out` gets the bytes
  // to pass on now (none while the head is still incomplete); they stay
  // valid until the next call. False when the response is malformed.
  bool feed(const char* data, std::size_t size, std::vector<boost::asio::const_buffer>& out);

  // The reply body has ended. False when the response is incomplete.
  bool finish();

  bool headComplete() const { return forwarding_; }
  bool complete() const;
  bool keepAlive() const;
  unsigned status() const { return status_; }
  const std::string& reason() const { return reason_; }
  const std::string& error() const { return error_; }

 private:
  class Parser;
  std::size_t parse(const char* data, std::size_t size);
  bool fail(const std::string& why);

  bool headRequest_;
  std::unique_ptr<Parser> parser_;
  std::string carry_;  // bytes the parser has not consumed yet
  std::string held_;   // the head, until it is complete
  bool forwarding_ = false;
  bool failed_ = false;
  unsigned status_ = 0;
  std::string reason_;
  std::string error_;
};

}  // namespace devrelay
}  // namespace quorvel
