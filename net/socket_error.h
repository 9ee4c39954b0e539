#pragma once

#include <stdexcept>
#include <string>

namespace quorvel {

// A socket call that the operating system refused; carries its error number.
class SocketError : public std::runtime_error {
 public:
  SocketError(const std::string& message, int error) : std::runtime_error(message), error_(error) {}
  int error() const { return error_; }

 private:
  int error_;
};

// True for the error numbers after which a peer is unreachable or the
// connection is gone (ENETUNREACH, ENETRESET, ECONNRESET, ECONNREFUSED,
// EHOSTUNREACH), as opposed to transient or local failures.
bool isConnectionFailure(int error);

}  // namespace quorvel
