#include "sctp/hex_dump.h"

#include <gtest/gtest.h>

namespace quorvel {
namespace {

// The dump follows every sendv/recvv log line: sixteen bytes a line, cut at
// the limit.
TEST(HexDump, SixteenBytesALineCutAtTheLimit) {
  uint8_t data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<uint8_t>(i * 0x1f);
  EXPECT_EQ(hexDump(data, 20, 17),
            "00 1f 3e 5d 7c 9b ba d9 f8 17 36 55 74 93 b2 d1\nf0 ...");
  EXPECT_EQ(hexDump(data, 2), "00 1f");
  EXPECT_EQ(hexDump(data, 0), "");
}

}  // namespace
}  // namespace quorvel
