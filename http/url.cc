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

StringSection Url::schemeOf(StringSection url) {
  const std::size_t colon = url.find(':');
  return colon == StringSection::npos ? StringSection() : url.substr(0, colon);
}

StringSection Url::authorityOf(StringSection url) {
  const std::size_t start = authorityStart(url);
  if (start == StringSection::npos) return StringSection();
  const std::size_t slash = url.find('/', start);
  return url.substr(start, slash == StringSection::npos ? StringSection::npos : slash - start);
}

StringSection Url::pathOf(StringSection url) {
  const std::size_t start = authorityStart(url);
  if (start == StringSection::npos) return StringSection();
  const std::size_t slash = url.find('/', start);
  return slash == StringSection::npos ? StringSection() : url.substr(slash);
}

std::string Url::scheme(StringSection url) { return schemeOf(url).str(); }

std::string Url::authority(StringSection url) { return authorityOf(url).str(); }

std::string Url::path(StringSection url) { return pathOf(url).str(); }

std::string Url::resolve(StringSection base, StringSection reference) {
  std::string result;
  resolve(base, reference, result);
  return result;
}

void Url::resolve(StringSection base, StringSection reference, std::string& out) {
  const auto append = [&out](StringSection text) {
    if (!text.empty()) out.append(text.data(), text.size());
  };
  out.clear();
  if (reference.empty()) return append(base);
  if (reference.find(':') != StringSection::npos) return append(reference);
  append(schemeOf(base));
  if (reference.startsWith("//")) {
    out += ':';
    return append(reference);
  }
  out += "://";
  append(authorityOf(base));
  if (reference.startsWith("/")) return append(reference);
  const StringSection basePath = pathOf(base);
  const std::size_t lastSlash = basePath.rfind('/');
  // A base without any path is taken as its root.
  if (lastSlash == StringSection::npos) {
    out += '/';
  } else {
    append(basePath.substr(0, lastSlash + 1));
  }
  append(reference);
}

std::string Url::withScheme(StringSection url, StringSection scheme) {
  std::string result;
  withScheme(url, scheme, result);
  return result;
}

void Url::withScheme(StringSection url, StringSection scheme, std::string& out) {
  const std::size_t colon = url.find(':');
  out.clear();
  if (colon == StringSection::npos) {
    if (!url.empty()) out.append(url.data(), url.size());
    return;
  }
  if (!scheme.empty()) out.append(scheme.data(), scheme.size());
  const StringSection rest = url.substr(colon);
  out.append(rest.data(), rest.size());
}

}  // namespace quorvel
