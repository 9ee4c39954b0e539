#include "revhttp/link_field.h"

#include "http/url.h"

namespace quorvel {

std::string findLink(const MessageHeaders& headers, StringSection relation, StringSection base) {
  for (const MessageHeaders::Field& field : headers) {
    if (!field.name.equals("Link")) continue;
    const StringSection value = field.value;
    if (value.empty() || value[0] != '<') continue;
    const std::size_t close = value.find('>');
    if (close == StringSection::npos) continue;
    const std::size_t rel = value.find(StringSection("rel="));
    if (rel == StringSection::npos) continue;
    StringSection name = value.substr(rel + 4);
    if (name.size() > 1 && name[0] == '"' && name[name.size() - 1] == '"') name = name.substr(1, name.size() - 2);
    if (name.equals(relation)) return Url::resolve(base, value.substr(1, close - 1));
  }
  return std::string();
}

}  // namespace quorvel
