#include "ice/credentials.h"

namespace quorvel {
namespace ice {
namespace {

constexpr char Alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789$!";
static_assert(sizeof Alphabet - 1 == 64, "six bits per character");

}  // namespace

std::string randomIceText(RandomSource& random, std::size_t length) {
  std::string text(length, '\0');
  // 64 symbols: the low six bits pick one without bias.
  for (char& c : text) c = Alphabet[random.next() & 63u];
  return text;
}

}  // namespace ice
}  // namespace quorvel
