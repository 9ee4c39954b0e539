#pragma once

#include <string>

#include "http/message_headers.h"
#include "http/string_section.h"

namespace quorvel {

// The relay service steers the device only through Link fields. Each field
// carries exactly one link, "<reference>; rel=relation" (relation quoted or
// not); the field name is matched with case and several links or further
// parameters in one field never match. Returns the reference of the first
// field with the wanted relation resolved against `base`, or empty.
std::string findLink(const MessageHeaders& headers, StringSection relation, StringSection base);

}  // namespace quorvel
