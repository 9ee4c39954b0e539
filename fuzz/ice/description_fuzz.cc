// A remote client's session description as the device receives it: the
// parser may refuse the text or throw its documented errors, and whatever
// it accepts prints back to a text that parses to the same description.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "core/errors.h"
#include "ice/session_description.h"

using quorvel::ice::SessionDescription;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  SessionDescription description;
  try {
    if (!quorvel::ice::parseDescription(text, description)) return 0;
  } catch (const quorvel::BadFormatError&) {
    return 0;
  } catch (const std::invalid_argument&) {
    return 0;  // an address text that does not parse
  }
  // The printed form needs both credentials, as every real description has.
  if (description.userFragment.empty() || description.password.empty()) return 0;

  const std::string printed = quorvel::ice::printDescription(description);
  SessionDescription again;
  require(quorvel::ice::parseDescription(printed, again));
  require(again.candidates.size() == description.candidates.size());
  for (std::size_t i = 0; i < again.candidates.size(); ++i) {
    const auto& a = *description.candidates[i];
    const auto& b = *again.candidates[i];
    require(a.type == b.type && a.address == b.address && a.priority == b.priority && a.foundation == b.foundation);
  }
  require(again.userFragment == description.userFragment && again.password == description.password);
  require(quorvel::ice::printDescription(again) == printed);
  return 0;
}
