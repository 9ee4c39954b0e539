#include "revhttp/link_field.h"

#include "http/url.h"

namespace quorvel {

void findLinkReferences(const MessageHeaders& headers, const StringSection* relations, StringSection* references,
                        std::size_t count) {
  findLinkReferences(headers, headers.find(LinkField), relations, references, count);
}

void findLinkReferences(const MessageHeaders& headers, MessageHeaders::FieldIterator firstLink,
                        const StringSection* relations, StringSection* references, std::size_t count) {
  std::size_t missing = count;
  for (std::size_t i = 0; i < count; ++i) references[i] = StringSection();
  for (auto field = firstLink; field != headers.end() && missing > 0; field = headers.findAfter(LinkField, field)) {
    if (!field->name.equals(LinkField)) continue;
    const StringSection value = field->value;
    if (value.empty() || value[0] != '<') continue;
    const std::size_t close = value.find('>');
    if (close == StringSection::npos) continue;
    const std::size_t rel = value.find(StringSection("rel="));
    if (rel == StringSection::npos) continue;
    StringSection name = value.substr(rel + 4);
    if (name.size() > 1 && name[0] == '"' && name[name.size() - 1] == '"') name = name.substr(1, name.size() - 2);
    for (std::size_t i = 0; i < count; ++i) {
      if (references[i].data() || !name.equals(relations[i])) continue;
      // Never without text, even for "<>": that is a reference to the base.
      references[i] = StringSection(value.data() + 1, close - 1);
      --missing;
    }
  }
}

std::string findLink(const MessageHeaders& headers, StringSection relation, StringSection base) {
  StringSection reference;
  findLinkReferences(headers, &relation, &reference, 1);
  return reference.data() ? Url::resolve(base, reference) : std::string();
}

}  // namespace quorvel
