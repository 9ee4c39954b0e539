#include "http/url.h"

namespace quorvel {
namespace {

// Where the authority starts, or npos when the first ":" is not followed by "//".
std::size_t authorityStart(StringSection url) {
  const std::size_t colon = url.find(':');
  if (colon == StringSection::npos || !url.substr(colon + 1).startsWith("//")) return StringSection::npos;
  return colon + 3;
}

}  // namespace

std::string Url::scheme(StringSection url) {
  const std::size_t colon = url.find(':');
  return colon == StringSection::npos ? std::string() : url.substr(0, colon).str();
}

std::string Url::authority(StringSection url) {
  const std::size_t start = authorityStart(url);
  if (start == StringSection::npos) return std::string();
  const std::size_t slash = url.find('/', start);
  return url.substr(start, slash == StringSection::npos ? StringSection::npos : slash - start).str();
}

std::string Url::path(StringSection url) {
  const std::size_t start = authorityStart(url);
  if (start == StringSection::npos) return std::string();
  const std::size_t slash = url.find('/', start);
  return slash == StringSection::npos ? std::string() : url.substr(slash).str();
}

std::string Url::resolve(StringSection base, StringSection reference) {
  if (reference.empty()) return base.str();
  if (reference.find(':') != StringSection::npos) return reference.str();
  if (reference.startsWith("//")) return scheme(base) + ":" + reference.str();
  std::string result = scheme(base) + "://" + authority(base);
  if (reference.startsWith("/")) return result + reference.str();
  const std::string basePath = path(base);
  const std::size_t lastSlash = StringSection(basePath).rfind('/');
  // A base without any path is taken as its root.
  result += lastSlash == StringSection::npos ? std::string("/") : basePath.substr(0, lastSlash + 1);
  return result + reference.str();
}

std::string Url::withScheme(StringSection url, StringSection scheme) {
  const std::size_t colon = url.find(':');
  if (colon == StringSection::npos) return url.str();
  return scheme.str() + url.substr(colon).str();
}

}  // namespace quorvel
