#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvel {
namespace devrelay {

// Beast 1.74 compares a Content-Length with an empty limit as "exceeded", so
// "no limit" has to be the largest value instead.
constexpr std::uint64_t NoBodyLimit = std::numeric_limits<std::uint64_t>::max();

using Fields = std::vector<std::pair<std::string, std::string>>;

// Status line, fields and the blank line, exactly as given: the device's
// Link parser is case-sensitive, so nothing here may re-case a name.
std::string responseHead(unsigned status, std::string_view reason, const Fields& fields);

// A whole small response with a text/plain body; HEAD answers omit the body.
std::string textResponse(unsigned status, std::string_view reason, const std::string& text, bool keepAlive,
                         bool headRequest);

std::string_view reasonPhrase(unsigned status);

// "<url>; rel=\"name\"": one link per field, the only form the device reads.
std::string linkValue(const std::string& url, std::string_view relation);

std::string lowerCase(std::string_view text);
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// The host part of a Host field value: port removed, IPv6 brackets removed.
std::string hostOfAuthority(std::string_view authority);

// Host text fit for a URL authority again (IPv6 literals get brackets).
std::string authorityHost(const std::string& host);

// The device key an outside Host names: its first label, lower-cased; empty
// when the host has no dot.
std::string deviceKeyOfHost(std::string_view host);

// Keys become host labels, so only letters, digits, "-" and "_", 1..63 long.
bool isValidKey(std::string_view key);

// "<hex size>\r\n"
std::string chunkSizeLine(std::size_t size);

}  // namespace devrelay
}  // namespace quorvel
