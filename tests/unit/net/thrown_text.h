#pragma once

#include <exception>
#include <string>

namespace quorvel {
namespace testing {

// The text of what `f` throws, to compare with the exact message.
template <typename F>
std::string thrownText(F f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

}  // namespace testing
}  // namespace quorvel
