#include "stun/sha1.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "stun/crc32.h"

namespace quorvel {
namespace stun {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

std::string hex(const uint8_t* begin, const uint8_t* end) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t* p = begin; p != end; ++p) {
    text += digits[*p >> 4];
    text += digits[*p & 15];
  }
  return text;
}

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

std::string sha1Hex(const std::string& input) {
  Sha1Hash hash;
  hash.add(bytes(input), bytes(input) + input.size());
  hash.finalize();
  return hex(hash.digestBegin(), hash.digestEnd());
}

std::string hmacHex(const std::string& key, const std::string& message) {
  uint8_t out[20];
  hmacSha1(bytes(key), bytes(key) + key.size(), bytes(message), bytes(message) + message.size(), out);
  return hex(out, out + 20);
}

TEST(Sha1Test, FipsDigests) {
  EXPECT_EQ(sha1Hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(sha1Hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  // 56 bytes: the length no longer fits the first block's tail.
  EXPECT_EQ(sha1Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(sha1Hex(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Sha1Test, PiecewiseInputMatchesOneGo) {
  std::string input;
  for (int i = 0; i < 300; ++i) input += static_cast<char>(i * 7);
  const std::string whole = sha1Hex(input);
  // Splits around block boundaries exercise both the bulk and byte paths.
  for (std::size_t split : {1u, 55u, 63u, 64u, 65u, 128u, 200u}) {
    Sha1Hash hash;
    hash.add(bytes(input), bytes(input) + split);
    const std::vector<uint8_t> rest(input.begin() + split, input.end());
    hash.add(rest.cbegin(), rest.cend());
    hash.finalize();
    EXPECT_EQ(hex(hash.digestBegin(), hash.digestEnd()), whole) << split;
  }
}

TEST(Sha1Test, DigestOfDigestAndFinalizedRefusal) {
  Sha1Hash first;
  first.finalize();
  Sha1Hash second;
  second.add(first);
  second.finalize();
  EXPECT_EQ(hex(second.digestBegin(), second.digestEnd()),
            sha1Hex(std::string(reinterpret_cast<const char*>(first.digestBegin()), 20)));

  const uint8_t byte = 0;
  EXPECT_THAT([&] { second.add(&byte, &byte + 1); },
              ThrowsMessage<std::logic_error>(StrEq("Can't add new data to finalized hash")));
  EXPECT_THROW(second.add(&byte, &byte), std::logic_error);
  EXPECT_THROW(second.finalize(), std::logic_error);
}

TEST(HmacSha1Test, KeysOverOneBlockAreRefused) {
  EXPECT_NO_THROW(hmacHex(std::string(64, 'k'), "m"));
  EXPECT_THAT([&] { hmacHex(std::string(65, 'k'), "m"); }, ThrowsMessage<std::logic_error>(StrEq("HMAC key too long")));
}

TEST(HmacSha1Test, AgreesWithOpenSsl) {
  std::mt19937 random(20261121);
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint8_t> key(random() % 65);
    std::vector<uint8_t> message(random() % 600);
    for (uint8_t& b : key) b = static_cast<uint8_t>(random());
    for (uint8_t& b : message) b = static_cast<uint8_t>(random());

    uint8_t ours[20];
    hmacSha1(key.data(), key.data() + key.size(), message.data(), message.data() + message.size(), ours);
    uint8_t theirs[EVP_MAX_MD_SIZE];
    unsigned int theirLength = 0;
    ASSERT_NE(HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), message.data(), message.size(),
                   theirs, &theirLength),
              nullptr);
    ASSERT_EQ(theirLength, 20u);
    ASSERT_EQ(hex(ours, ours + 20), hex(theirs, theirs + 20))
        << "key " << key.size() << " bytes, message " << message.size() << " bytes";
  }
}

TEST(Crc32Test, CheckValueAndEmptyRange) {
  const std::string check = "123456789";
  EXPECT_EQ(crc32(bytes(check), bytes(check) + check.size()), 0xCBF43926u);
  EXPECT_EQ(crc32(bytes(check), bytes(check)), 0u);
  const uint8_t zero = 0;
  EXPECT_EQ(crc32(&zero, &zero + 1), 0xD202EF8Du);
}

}  // namespace
}  // namespace stun
}  // namespace quorvel
