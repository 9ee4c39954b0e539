#pragma once

#include <string>

#include "http/string_section.h"

namespace quorvel {

// URLs are handled as plain text, taken apart and put together exactly as
// the relay service writes them; nothing is validated or normalised.
struct Url {
  // The text before the first ":"; empty when there is none.
  static std::string scheme(StringSection url);
  // After "://" up to the next "/" or the end; empty unless the first ":" is
  // followed by "//".
  static std::string authority(StringSection url);
  // From the first "/" after the authority to the end, query included; empty
  // when there is none (callers use "/").
  static std::string path(StringSection url);
  // A reference resolved against a base; "." and ".." segments stay.
  static std::string resolve(StringSection base, StringSection reference);
  // The url with the text before its first ":" replaced by the scheme.
  static std::string withScheme(StringSection url, StringSection scheme);

  // The same parts as views into the url's own text.
  static StringSection schemeOf(StringSection url);
  static StringSection authorityOf(StringSection url);
  static StringSection pathOf(StringSection url);
  // resolve() and withScheme() written into `out`, whose room is reused:
  // for callers that put together a URL for every request. `out` must not
  // be the text of either argument.
  static void resolve(StringSection base, StringSection reference, std::string& out);
  static void withScheme(StringSection url, StringSection scheme, std::string& out);
};

}  // namespace quorvel
