#include "core/byte_order.h"

#include <cstring>

#include <gtest/gtest.h>

namespace quorvel {
namespace {

TEST(ByteOrder, StoresMostSignificantByteFirst) {
  uint8_t bytes[8] = {};
  storeBigEndian16(bytes, 0x1234);
  EXPECT_EQ(bytes[0], 0x12);
  EXPECT_EQ(bytes[1], 0x34);
  storeBigEndian32(bytes, 0x2112A442u);
  const uint8_t cookie[4] = {0x21, 0x12, 0xA4, 0x42};
  EXPECT_EQ(0, std::memcmp(bytes, cookie, 4));
  storeBigEndian64(bytes, 0x0102030405060708ull);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(bytes[i], i + 1);
}

TEST(ByteOrder, LoadsRoundTripAtUnalignedOffsets) {
  uint8_t bytes[20] = {};
  storeBigEndian32(bytes + 1, 0xCBF43926u);
  storeBigEndian16(bytes + 7, 0xFFFE);
  storeBigEndian64(bytes + 5 + 4, 0x8000000000000001ull);
  EXPECT_EQ(loadBigEndian32(bytes + 1), 0xCBF43926u);
  EXPECT_EQ(loadBigEndian64(bytes + 9), 0x8000000000000001ull);
  EXPECT_EQ(bytes[1], 0xCB);  // independent of the host's own order
}

}  // namespace
}  // namespace quorvel
