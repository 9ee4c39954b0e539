// A datagram that reaches a session socket, taken as an incoming check: the
// fields a session reads from it, the credential check, the role decision,
// and the answers built from it, which must always be well-formed STUN with
// a valid integrity and fingerprint.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ice/check_messages.h"
#include "stun/integrity.h"

using quorvel::SocketAddress;
using quorvel::stun::Message;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

void requireWellFormed(const Message& answer, const std::string& key) {
  Message parsed;
  require(parsed.parse(answer.data(), answer.size()));
  require(quorvel::stun::isStunMessage(answer.data(), answer.size(), true));
  require(quorvel::stun::checkMessageIntegrity(parsed, key));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (!quorvel::stun::isStunMessage(data, size, false)) return 0;
  Message request;
  if (!request.parse(data, size)) return 0;

  const std::string key = "devicepassworddevicepas";
  (void)quorvel::stun::checkCredentials(request, "devi:peer", key);
  (void)quorvel::ice::readPriority(request);
  for (bool controlling : {true, false}) {
    for (uint64_t tieBreaker : {uint64_t{0}, uint64_t{1} << 63, ~uint64_t{0}}) {
      (void)quorvel::ice::resolveRoleConflict(controlling, tieBreaker, request);
    }
  }
  const SocketAddress from(AF_INET6, "2001:db8::7", 6000);
  requireWellFormed(quorvel::ice::makeCheckSuccess(request, from, key), key);
  const Message error = quorvel::ice::makeCheckError(request, 401, "Unauthorized", key);
  requireWellFormed(error, key);
  require(error.getErrorCode() == 401);
  require(error.transactionId() == request.transactionId() && error.method() == request.method());
  return 0;
}
