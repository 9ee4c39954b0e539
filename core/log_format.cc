#include "core/log_format.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace quorvel {
namespace log {
namespace {

// Beyond any width a log line wants; a text asking for more does not parse.
constexpr unsigned MaxWidth = 4096;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Digits at text[i...] as a number no larger than MaxWidth; false when there
// are more.
bool readNumber(const char* text, std::size_t& i, unsigned& value) {
  value = 0;
  while (isDigit(text[i])) {
    value = value * 10 + static_cast<unsigned>(text[i++] - '0');
    if (value > MaxWidth) return false;
  }
  return true;
}

// What a directive's argument prints as before padding: a number (padded
// with zeros after its sign) or characters (padded before them).
struct Body {
  char buffer[64];
  const char* data = buffer;
  std::size_t size = 0;
  bool number = true;
  std::string wide;  // a fixed double too long for the buffer
};

// An integer as a stream prints it: in hex, the bits of its own width.
template <typename T>
void printInteger(Body& body, T value, const ParsedFormat::Directive& directive) {
  std::to_chars_result end;
  if (directive.conversion == 'x') {
    end = std::to_chars(body.buffer, body.buffer + sizeof body.buffer, static_cast<std::make_unsigned_t<T>>(value), 16);
    if (directive.upper) {
      for (char* c = body.buffer; c != end.ptr; ++c) {
        if (*c >= 'a' && *c <= 'f') *c = static_cast<char>(*c - 'a' + 'A');
      }
    }
  } else {
    end = std::to_chars(body.buffer, body.buffer + sizeof body.buffer, value);
  }
  body.size = static_cast<std::size_t>(end.ptr - body.buffer);
}

// A double as a stream prints it: %g with six digits unless told otherwise
// (%s always six), fixed for %f; %X asks for upper-case exponents.
void printDouble(Body& body, double value, const ParsedFormat::Directive& directive) {
  const int precision = directive.precision >= 0 && directive.conversion != 's' ? directive.precision : 6;
  const char* format = directive.conversion == 'f' ? "%.*f" : directive.upper ? "%.*G" : "%.*g";
  const int size = std::snprintf(body.buffer, sizeof body.buffer, format, precision, value);
  if (size >= 0 && static_cast<std::size_t>(size) < sizeof body.buffer) {
    body.size = static_cast<std::size_t>(size);
    return;
  }
  // Only a large fixed value is longer.
  if (size < 0) return;
  body.wide.resize(static_cast<std::size_t>(size) + 1);
  std::snprintf(&body.wide[0], body.wide.size(), format, precision, value);
  body.data = body.wide.data();
  body.size = static_cast<std::size_t>(size);
}

void appendPadded(std::string& out, const Body& body, const ParsedFormat::Directive& directive) {
  std::size_t size = body.size;
  // Boost.Format's truncation: %.Ns prints at most N characters of anything.
  if (directive.conversion == 's' && directive.precision >= 0) {
    size = std::min(size, static_cast<std::size_t>(directive.precision));
  }
  const std::size_t padding = directive.width > size ? directive.width - size : 0;
  if (padding == 0) {
    out.append(body.data, size);
  } else if (directive.left) {
    out.append(body.data, size).append(padding, ' ');
  } else if (directive.zeros) {
    const bool sign = body.number && size > 0 && (body.data[0] == '-' || body.data[0] == '+');
    out.append(body.data, sign ? 1 : 0).append(padding, '0').append(body.data + (sign ? 1 : 0), size - (sign ? 1 : 0));
  } else {
    out.append(padding, ' ').append(body.data, size);
  }
}

}  // namespace

// Reads the erased argument back as the type it had at the call site.
class Formatter {
 public:
  static void append(std::string& out, const LogArg& arg, const ParsedFormat::Directive& directive) {
    const auto& v = arg.value_;
    Body body;
    switch (arg.kind_) {
      case LogArg::Kind::Bool: printInteger(body, static_cast<long>(v.b), directive); break;
      case LogArg::Kind::Char: character(body, v.c); break;
      case LogArg::Kind::SignedChar: character(body, static_cast<char>(v.sc)); break;
      case LogArg::Kind::UnsignedChar: character(body, static_cast<char>(v.uc)); break;
      case LogArg::Kind::Short: printInteger(body, v.s, directive); break;
      case LogArg::Kind::UnsignedShort: printInteger(body, v.us, directive); break;
      case LogArg::Kind::Int: printInteger(body, v.i, directive); break;
      case LogArg::Kind::Unsigned: printInteger(body, v.u, directive); break;
      case LogArg::Kind::Long: printInteger(body, v.l, directive); break;
      case LogArg::Kind::UnsignedLong: printInteger(body, v.ul, directive); break;
      case LogArg::Kind::LongLong: printInteger(body, v.ll, directive); break;
      case LogArg::Kind::UnsignedLongLong: printInteger(body, v.ull, directive); break;
      case LogArg::Kind::Double: printDouble(body, v.d, directive); break;
      case LogArg::Kind::Text:
        body.data = arg.text_.data;
        body.size = arg.text_.size;
        body.number = false;
        break;
    }
    appendPadded(out, body, directive);
  }

 private:
  static void character(Body& body, char c) {
    body.buffer[0] = c;
    body.size = 1;
    body.number = false;
  }
};

std::optional<ParsedFormat> ParsedFormat::parse(const char* text) {
  ParsedFormat parsed;
  std::string literal;
  std::size_t i = 0;
  while (text[i] != '\0') {
    if (text[i] != '%') {
      literal += text[i++];
      continue;
    }
    ++i;
    if (text[i] == '%') {
      literal += text[i++];
      continue;
    }
    Directive directive;
    // A width may not be followed by flags; digits ended by '%' or '$' would
    // be an argument's position, which log texts do not use.
    if (isDigit(text[i]) && text[i] != '0') {
      if (!readNumber(text, i, directive.width)) return std::nullopt;
    } else {
      for (;; ++i) {
        if (text[i] == '-') {
          directive.left = true;
        } else if (text[i] == '0') {
          directive.zeros = true;
        } else {
          break;
        }
      }
      if (!readNumber(text, i, directive.width)) return std::nullopt;
    }
    if (directive.left) directive.zeros = false;
    if (text[i] == '.') {
      ++i;
      unsigned precision = 0;
      if (!readNumber(text, i, precision)) return std::nullopt;
      directive.precision = static_cast<int>(precision);
    }
    while (text[i] != '\0' && std::strchr("hljzL", text[i])) ++i;
    switch (text[i]) {
      case 's': directive.conversion = 's'; break;
      case 'd':
      case 'i':
      case 'u': directive.conversion = 'd'; break;
      case 'X': directive.upper = true; directive.conversion = 'x'; break;
      case 'x': directive.conversion = 'x'; break;
      case 'f': directive.conversion = 'f'; break;
      default: return std::nullopt;  // the end of the text too
    }
    ++i;
    directive.textBefore.swap(literal);
    parsed.directives_.push_back(std::move(directive));
  }
  parsed.tail_ = std::move(literal);
  return parsed;
}

bool ParsedFormat::format(std::initializer_list<LogArg> args, std::string& out) const {
  if (args.size() != directives_.size()) return false;
  const LogArg* arg = args.begin();
  for (const Directive& directive : directives_) {
    out += directive.textBefore;
    Formatter::append(out, *arg++, directive);
  }
  out += tail_;
  return true;
}

}  // namespace log
}  // namespace quorvel
