#include "ice/check_messages.h"

#include "core/byte_order.h"
#include "stun/integrity.h"

namespace quorvel {
namespace ice {

using stun::Message;

stun::MessagePtr makeCheckRequest(RandomSource& random, const CheckParameters& parameters) {
  auto request = std::make_shared<Message>(Message::Request, Message::MethodBinding, stun::makeTransactionId(random));
  request->addStringAttribute(Message::Username, parameters.userName);
  request->addIntegerAttribute(Message::Priority, 4, parameters.priority);
  request->addIntegerAttribute(parameters.controlling ? Message::IceControlling : Message::IceControlled, 8,
                               static_cast<uint32_t>(parameters.tieBreaker >> 32),
                               static_cast<uint32_t>(parameters.tieBreaker));
  if (parameters.useCandidate) request->addAttribute(Message::UseCandidate);
  stun::addMessageIntegrity(*request, parameters.key);
  stun::addFingerprint(*request);
  return request;
}

Message makeCheckSuccess(const Message& request, const SocketAddress& from, const std::string& key) {
  Message response(Message::SuccessResponse, request.method(), request.transactionId());
  response.addXorMappedAddress(from);
  stun::addMessageIntegrity(response, key);
  stun::addFingerprint(response);
  return response;
}

Message makeCheckError(const Message& request, int code, const std::string& reason, const std::string& key) {
  Message response(Message::ErrorResponse, request.method(), request.transactionId());
  response.addErrorCode(code, reason);
  stun::addMessageIntegrity(response, key);
  stun::addFingerprint(response);
  return response;
}

Message makeKeepalive(RandomSource& random) {
  Message indication(Message::Indication, Message::MethodBinding, stun::makeTransactionId(random));
  stun::addFingerprint(indication);
  return indication;
}

std::optional<uint32_t> readPriority(const Message& message) {
  const std::optional<stun::Attribute> record = message.findAttribute(Message::Priority);
  if (!record || record->value.size() != 4) return std::nullopt;
  return loadBigEndian32(record->value.begin);
}

std::optional<uint64_t> readTieBreaker(const Message& message, uint16_t type) {
  const std::optional<stun::Attribute> record = message.findAttribute(type);
  if (!record || record->value.size() != 8) return std::nullopt;
  return loadBigEndian64(record->value.begin);
}

RoleConflict resolveRoleConflict(bool controlling, uint64_t ourTieBreaker, const Message& request) {
  const std::optional<uint64_t> theirs =
      readTieBreaker(request, controlling ? Message::IceControlling : Message::IceControlled);
  if (!theirs) return RoleConflict::None;
  // The larger tie-breaker ends up controlling.
  if (controlling) return ourTieBreaker >= *theirs ? RoleConflict::Reject487 : RoleConflict::SwitchRole;
  return ourTieBreaker >= *theirs ? RoleConflict::SwitchRole : RoleConflict::Reject487;
}

}  // namespace ice
}  // namespace quorvel
