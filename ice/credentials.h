#pragma once

#include <cstddef>
#include <string>

#include "core/random_source.h"

namespace quorvel {
namespace ice {

// RFC 5245 section 15.4 asks for at least 24 bits of randomness in the user
// fragment (4 characters) and 128 bits in the password (22 characters);
// both are drawn a little longer than that.
constexpr std::size_t UserFragmentLength = 8;
constexpr std::size_t PasswordLength = 24;

// `length` characters from the 64-character alphabet
// "a-z A-Z 0-9 $ !", one draw of the random source per character.
std::string randomIceText(RandomSource& random, std::size_t length);

}  // namespace ice
}  // namespace quorvel
