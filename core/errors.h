#pragma once

#include <stdexcept>

namespace quorvel {

// Text that does not have the form it must have (a description, a header,
// an address) and cannot be used.
class BadFormatError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An operation called in a state where it cannot work, e.g. through a handle
// whose object is gone.
class BadCallError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

}  // namespace quorvel
