#pragma once

#include "ice/session.h"

namespace quorvel {
namespace ice {

// Makes the sessions that the session manager hands out, so that the
// request handler can be tried without a network.
class SessionFactory {
 public:
  virtual ~SessionFactory() = default;
  // A session that has not been given a remote description or started.
  virtual SessionPtr createSession() = 0;
};

}  // namespace ice
}  // namespace quorvel
