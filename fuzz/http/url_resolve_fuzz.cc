#include <cstddef>
#include <cstdint>
#include <string>

#include "http/url.h"

// Base and reference separated by the first newline.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using quorvel::Url;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t newline = input.find('\n');
  const std::string base = input.substr(0, newline);
  const std::string reference = newline == std::string::npos ? std::string() : input.substr(newline + 1);
  const std::string resolved = Url::resolve(base, reference);
  if (reference.empty() && resolved != base) __builtin_trap();
  if (reference.find(':') != std::string::npos && resolved != reference) __builtin_trap();
  (void)Url::authority(resolved);
  (void)Url::path(resolved);
  const std::string changed = Url::withScheme(base, "http");
  if (base.find(':') != std::string::npos && Url::scheme(changed) != "http") __builtin_trap();
  return 0;
}
