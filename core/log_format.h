#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "core/log.h"

namespace quorvel {
namespace log {

// A log call's format text, parsed once. The syntax is the part of
// Boost.Format's (printf's directives, each argument printed as an output
// stream prints its type) that log texts use, and prints exactly as
// Boost.Format does: %s %d %i %u %x %X %f, with the flags '-' (left) and '0'
// (zeros after the sign), a width, a precision (digits after the point of a
// floating-point value, or the most characters %s prints), the length
// modifiers h l j z L (ignored, as the argument's own type decides), and %%.
// Any directive does any argument: %s and %d print a number in decimal, %x
// a character as that character. Anything else does not parse, so the message
// becomes the text with " (log formatting error)", as does a count of
// arguments other than the count of directives. Without Boost.Format no
// output stream is built, which keeps the standard library's locale and
// stream machinery out of a static daemon.
class ParsedFormat {
 public:
  static std::optional<ParsedFormat> parse(const char* text);

  // Appends the message to out; false when the arguments do not fit.
  bool format(std::initializer_list<LogArg> args, std::string& out) const;

  struct Directive {
    std::string textBefore;
    char conversion = 's';  // 's', 'd' (also i and u), 'x' or 'f'
    bool upper = false;      // %X
    bool left = false;       // '-'
    bool zeros = false;      // '0' without '-'
    unsigned width = 0;
    int precision = -1;      // as given; -1 when none
  };

 private:
  std::vector<Directive> directives_;
  std::string tail_;
};

}  // namespace log
}  // namespace quorvel
