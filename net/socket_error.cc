#include "net/socket_error.h"

#include <cerrno>

namespace quorvel {

bool isConnectionFailure(int error) {
  switch (error) {
    case ENETUNREACH:
    case ENETRESET:
    case ECONNRESET:
    case ECONNREFUSED:
    case EHOSTUNREACH:
      return true;
  }
  return false;
}

}  // namespace quorvel
