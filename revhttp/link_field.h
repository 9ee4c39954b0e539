#pragma once

#include <cstddef>
#include <string>

#include "http/message_headers.h"
#include "http/string_section.h"

namespace quorvel {

constexpr const char* LinkField = "Link";

// The relay service steers the device only through Link fields. Each field
// carries exactly one link, "<reference>; rel=relation" (relation quoted or
// not); the field name is matched with case and several links or further
// parameters in one field never match. Returns the reference of the first
// field with the wanted relation resolved against `base`, or empty.
std::string findLink(const MessageHeaders& headers, StringSection relation, StringSection base);

// The same for several relations in one walk, unresolved: each reference as
// it stands in its field, or a section without text (data() null) when no
// field has that relation.
void findLinkReferences(const MessageHeaders& headers, const StringSection* relations, StringSection* references,
                        std::size_t count);

// The same from the first field named "Link" (end() for none), for a caller
// that found it in a walk of its own.
void findLinkReferences(const MessageHeaders& headers, MessageHeaders::FieldIterator firstLink,
                        const StringSection* relations, StringSection* references, std::size_t count);

}  // namespace quorvel
