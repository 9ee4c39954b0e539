#include "stun/message.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/byte_order.h"

namespace quorvel {
namespace stun {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

const TransactionId Id = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

std::string text(const ByteRange& range) { return std::string(range.begin, range.end); }

// A header with the given length field followed by `tail`.
std::vector<uint8_t> datagram(uint16_t lengthField, const std::vector<uint8_t>& tail, uint8_t firstByte = 0) {
  std::vector<uint8_t> bytes(20 + tail.size(), 0);
  std::copy(tail.begin(), tail.end(), bytes.begin() + 20);
  bytes[0] = firstByte;
  bytes[1] = 1;
  storeBigEndian16(bytes.data() + 2, lengthField);
  storeBigEndian32(bytes.data() + 4, Message::MagicCookie);
  return bytes;
}

TEST(MessageTypeTest, ClassAndMethodRoundTrip) {
  EXPECT_EQ(encodeMessageType(Message::Request, Message::MethodBinding), 0x0001);
  EXPECT_EQ(encodeMessageType(Message::Indication, Message::MethodBinding), 0x0011);
  EXPECT_EQ(encodeMessageType(Message::SuccessResponse, Message::MethodBinding), 0x0101);
  EXPECT_EQ(encodeMessageType(Message::ErrorResponse, Message::MethodBinding), 0x0111);
  // Every one of the 12-bit methods, so that no bit of one field leaks into
  // another.
  for (int method = 0; method <= 0xFFF; ++method) {
    for (int cls = 0; cls < 4; ++cls) {
      const uint16_t type = encodeMessageType(cls, method);
      ASSERT_EQ(type & 0xC000, 0);
      ASSERT_EQ(decodeMessageClass(type), cls);
      ASSERT_EQ(decodeMessageMethod(type), method);
    }
  }
}

TEST(MessageTest, ConstructionWritesTheHeader) {
  const Message placeholder;
  EXPECT_TRUE(placeholder.valid());
  EXPECT_EQ(placeholder.bytes(), std::vector<uint8_t>(20, 0));

  const Message m(Message::SuccessResponse, Message::MethodBinding, Id.data(), Id.data() + 12);
  ASSERT_EQ(m.size(), 20u);
  EXPECT_EQ(loadBigEndian16(m.data()), 0x0101);
  EXPECT_EQ(loadBigEndian16(m.data() + 2), 0);
  EXPECT_EQ(loadBigEndian32(m.data() + 4), 0x2112A442u);
  EXPECT_EQ(m.transactionId(), Id);
  EXPECT_EQ(m.messageClass(), Message::SuccessResponse);
  EXPECT_EQ(m.method(), Message::MethodBinding);

  EXPECT_THAT([&] { Message(Message::Request, 1, Id.data(), Id.data() + 11); },
              ThrowsMessage<std::logic_error>(StrEq("Transaction ID is wrong size")));
}

TEST(MessageTest, AttributesArePaddedAndCounted) {
  Message m(Message::Request, 1, Id);
  ASSERT_TRUE(m.addStringAttribute(Message::Username, "abcde"));
  EXPECT_EQ(m.size(), 32u);
  EXPECT_EQ(loadBigEndian16(m.data() + 2), 12);
  EXPECT_EQ(loadBigEndian16(m.data() + 22), 5);  // unpadded length
  EXPECT_EQ(std::vector<uint8_t>(m.data() + 29, m.data() + 32), std::vector<uint8_t>(3, 0));

  ASSERT_TRUE(m.addAttribute(Message::UseCandidate));
  ASSERT_TRUE(m.addIntegerAttribute(Message::Priority, 4, 0x6E0001FFu));
  ASSERT_TRUE(m.addIntegerAttribute(Message::IceControlling, 8, 0x01020304u, 0x05060708u));
  EXPECT_EQ(loadBigEndian16(m.data() + 2), m.size() - 20);

  const auto use = m.findAttribute(Message::UseCandidate);
  ASSERT_TRUE(use);
  EXPECT_EQ(use->value.size(), 0u);
  EXPECT_EQ(use->offset, 32u);
  const auto priority = m.findAttribute(Message::Priority);
  ASSERT_TRUE(priority && priority->value.size() == 4);
  EXPECT_EQ(loadBigEndian32(priority->value.begin), 0x6E0001FFu);
  const auto tieBreaker = m.findAttribute(Message::IceControlling);
  ASSERT_TRUE(tieBreaker && tieBreaker->value.size() == 8);
  EXPECT_EQ(loadBigEndian64(tieBreaker->value.begin), 0x0102030405060708u);
  EXPECT_FALSE(m.findAttribute(Message::Software));
  // Only the first of equal types is seen.
  m.addStringAttribute(Message::Username, "second");
  EXPECT_EQ(text(m.findAttribute(Message::Username)->value), "abcde");

  // Wider than the value: leading zeros.
  ASSERT_TRUE(m.addIntegerAttribute(0x7000, 6, 0xAABBCCDDu));
  EXPECT_EQ(text(m.findAttribute(0x7000)->value), std::string("\0\0\xAA\xBB\xCC\xDD", 6));
  EXPECT_NO_THROW(m.addIntegerAttribute(0x7001, 16, 1));
  EXPECT_THAT([&] { m.addIntegerAttribute(0x7002, 17, 1); },
              ThrowsMessage<std::logic_error>(StrEq("Integer length too big")));
}

TEST(MessageTest, AddingToAnInvalidMessageStartsFromAZeroHeader) {
  Message m;
  const uint8_t junk[3] = {0xFF, 0xFF, 0xFF};
  EXPECT_FALSE(m.parse(junk, sizeof junk));
  EXPECT_FALSE(m.valid());
  EXPECT_EQ(m.messageClass(), 0);
  EXPECT_EQ(m.transactionId(), TransactionId{});
  EXPECT_FALSE(m.findAttribute(Message::Username));
  ASSERT_TRUE(m.addStringAttribute(Message::Username, "u"));
  EXPECT_EQ(m.size(), 28u);
  EXPECT_EQ(loadBigEndian16(m.data() + 2), 8);
}

TEST(MessageTest, OversizedValuesAreRefused) {
  Message m(Message::Request, 1, Id);
  EXPECT_FALSE(m.addStringAttribute(0x7000, std::string(0x10000, 'x')));
  EXPECT_EQ(m.size(), 20u);
  EXPECT_TRUE(m.addStringAttribute(0x7000, std::string(0xFFFF - 8, 'x')));
  EXPECT_FALSE(m.addAttribute(Message::UseCandidate));
  EXPECT_EQ(loadBigEndian16(m.data() + 2), m.size() - 20);
}

TEST(MessageParseTest, HeaderRules) {
  Message m;
  const std::vector<uint8_t> bare = datagram(0, {});
  EXPECT_TRUE(m.parse(bare.data(), bare.size()));
  EXPECT_FALSE(m.findAttribute(Message::Username));

  for (uint8_t first : {0x40, 0x80, 0xC0}) {
    const std::vector<uint8_t> bad = datagram(0, {}, first);
    EXPECT_FALSE(m.parse(bad.data(), bad.size())) << int(first);
    EXPECT_EQ(m.size(), 0u);
  }
  EXPECT_FALSE(m.parse(bare.data(), 19));

  // The cookie is the classifier's business, not parse's.
  std::vector<uint8_t> noCookie = bare;
  noCookie[4] = 0;
  EXPECT_TRUE(m.parse(noCookie.data(), noCookie.size()));
}

TEST(MessageParseTest, AttributeWalk) {
  Message m;
  const std::vector<uint8_t> record = {0x00, 0x06, 0x00, 0x05, 'a', 'b', 'c', 'd', 'e', 0, 0, 0};
  const std::vector<uint8_t> good = datagram(12, record);
  EXPECT_TRUE(m.parse(good.data(), good.size()));
  EXPECT_EQ(text(m.findAttribute(Message::Username)->value), "abcde");

  const std::vector<uint8_t> tooLong = datagram(13, record);
  EXPECT_FALSE(m.parse(tooLong.data(), tooLong.size()));

  const std::vector<uint8_t> unpadded = datagram(9, std::vector<uint8_t>(record.begin(), record.end() - 3));
  EXPECT_FALSE(m.parse(unpadded.data(), unpadded.size()));

  // A record declaring more than the datagram holds, the total still even.
  const std::vector<uint8_t> overrun = datagram(8, {0x00, 0x06, 0x00, 0x08, 'a', 'b', 'c', 'd'});
  EXPECT_FALSE(m.parse(overrun.data(), overrun.size()));

  const std::vector<uint8_t> strayBytes = datagram(12, {0x00, 0x06, 0x00, 0x05, 'a', 'b', 'c', 'd', 'e', 0, 0, 0, 1});
  EXPECT_FALSE(m.parse(strayBytes.data(), strayBytes.size()));

  // Records beyond the declared length must still be whole.
  const std::vector<uint8_t> shortLength = datagram(0, record);
  EXPECT_TRUE(m.parse(shortLength.data(), shortLength.size()));
}

TEST(MessageParseTest, IterationStopsAtAnOverrunningRecord) {
  Message m(Message::Request, 1, Id);
  m.addStringAttribute(Message::Software, "abcd");
  m.addStringAttribute(Message::Username, "user");
  EXPECT_TRUE(m.findAttribute(Message::Username));
  // Patched in place to declare more than the message holds: lookups must
  // stop there rather than read past the end.
  storeBigEndian16(m.mutableData() + 22, 0xFFFF);
  EXPECT_FALSE(m.findAttribute(Message::Software));
  EXPECT_FALSE(m.findAttribute(Message::Username));
}

// IPv4 against the known bytes; IPv6 also against the transaction id.
TEST(MappedAddressTest, XorEncodingRoundTrips) {
  Message v4(Message::SuccessResponse, 1, Id);
  ASSERT_TRUE(v4.addXorMappedAddress(SocketAddress(2, "192.0.2.1", 3478)));
  const stun::ByteRange v4Value = v4.findAttribute(Message::XorMappedAddress)->value;
  EXPECT_EQ(std::vector<uint8_t>(v4Value.begin, v4Value.end),
            (std::vector<uint8_t>{0x00, 0x01, 0x2C, 0x84, 0xE1, 0x12, 0xA6, 0x43}));
  EXPECT_EQ(v4.getMappedAddress(), SocketAddress(2, "192.0.2.1", 3478));

  const SocketAddress address(10, "2001:db8:1234:5678:11:2233:4455:6677", 32853);
  Message m(Message::SuccessResponse, 1, Id);
  ASSERT_TRUE(m.addXorMappedAddress(address));
  const auto record = m.findAttribute(Message::XorMappedAddress);
  ASSERT_TRUE(record && record->value.size() == 20);
  EXPECT_EQ(record->value.begin[1], 2);
  EXPECT_EQ(record->value.begin[4 + 4], 0x12 ^ Id[0]);  // address byte 4 (0x12) against id byte 0
  EXPECT_EQ(m.getMappedAddress(), address);

  Message other(Message::SuccessResponse, 1, TransactionId{});
  other.addAttribute(Message::XorMappedAddress, record->value.begin, record->value.end);
  EXPECT_NE(other.getMappedAddress(), address);
}

TEST(MappedAddressTest, PreferenceAndFallback) {
  const uint8_t plain[] = {0, 1, 0x12, 0x34, 10, 0, 0, 1};
  Message onlyPlain(Message::SuccessResponse, 1, Id);
  onlyPlain.addAttribute(Message::MappedAddress, plain, plain + sizeof plain);
  EXPECT_EQ(onlyPlain.getMappedAddress(), SocketAddress(2, "10.0.0.1", 0x1234));

  Message both = onlyPlain;
  both.addXorMappedAddress(SocketAddress(2, "192.0.2.1", 3478));
  EXPECT_EQ(both.getMappedAddress(), SocketAddress(2, "192.0.2.1", 3478));

  // Family 1 with 16 address bytes: unusable, and no fallback once found.
  uint8_t wrongSize[20] = {0, 1, 0x2C, 0x84};
  Message broken = onlyPlain;
  broken.addAttribute(Message::XorMappedAddress, wrongSize, wrongSize + sizeof wrongSize);
  EXPECT_FALSE(broken.getMappedAddress().valid());

  const uint8_t badFamily[] = {0, 3, 0x12, 0x34, 10, 0, 0, 1};
  Message unknown(Message::SuccessResponse, 1, Id);
  unknown.addAttribute(Message::MappedAddress, badFamily, badFamily + sizeof badFamily);
  EXPECT_FALSE(unknown.getMappedAddress().valid());
  EXPECT_FALSE(Message(Message::SuccessResponse, 1, Id).getMappedAddress().valid());
}

TEST(ErrorCodeTest, WriteReadAndLimits) {
  Message m(Message::ErrorResponse, 1, Id);
  ASSERT_TRUE(m.addErrorCode(487, "Role Conflict"));
  const auto record = m.findAttribute(Message::ErrorCode);
  ASSERT_TRUE(record);
  EXPECT_EQ(std::vector<uint8_t>(record->value.begin, record->value.begin + 4), (std::vector<uint8_t>{0, 0, 4, 87}));
  ByteRange reason;
  EXPECT_EQ(m.getErrorCode(reason), 487);
  EXPECT_EQ(text(reason), "Role Conflict");

  for (int bad : {299, 700, -400}) {
    EXPECT_THAT([&] { m.addErrorCode(bad, "x"); },
                ThrowsMessage<std::invalid_argument>(StrEq("Invalid error code"))) << bad;
  }
  Message longReason(Message::ErrorResponse, 1, Id);
  longReason.addErrorCode(300, std::string(100, 'r'));
  EXPECT_EQ(longReason.getErrorCode(reason), 300);
  EXPECT_EQ(reason.size(), 60u);

  Message shortRecord(Message::ErrorResponse, 1, Id);
  const uint8_t three[] = {0, 0, 4};
  shortRecord.addAttribute(Message::ErrorCode, three, three + 3);
  EXPECT_EQ(shortRecord.getErrorCode(), 0);
  EXPECT_EQ(Message(Message::ErrorResponse, 1, Id).getErrorCode(), 0);
}

}  // namespace
}  // namespace stun
}  // namespace quorvel
