#include "stun/integrity.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/byte_order.h"

namespace quorvel {
namespace stun {
namespace {

// The short-term credential samples of RFC 5769 (sections 2.1 to 2.3).
const std::string Password = "VOkJxbRl1RmTxUk/WvJxBt";
const TransactionId SampleId = {0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34, 0xd6, 0x86, 0xfa, 0x87, 0xdf, 0xae};

const std::vector<uint8_t> SampleRequest = {
    0x00, 0x01, 0x00, 0x58, 0x21, 0x12, 0xa4, 0x42, 0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34, 0xd6, 0x86,
    0xfa, 0x87, 0xdf, 0xae, 0x80, 0x22, 0x00, 0x10, 0x53, 0x54, 0x55, 0x4e, 0x20, 0x74, 0x65, 0x73,
    0x74, 0x20, 0x63, 0x6c, 0x69, 0x65, 0x6e, 0x74, 0x00, 0x24, 0x00, 0x04, 0x6e, 0x00, 0x01, 0xff,
    0x80, 0x29, 0x00, 0x08, 0x93, 0x2f, 0xf9, 0xb1, 0x51, 0x26, 0x3b, 0x36, 0x00, 0x06, 0x00, 0x09,
    0x65, 0x76, 0x74, 0x6a, 0x3a, 0x68, 0x36, 0x76, 0x59, 0x20, 0x20, 0x20, 0x00, 0x08, 0x00, 0x14,
    0x9a, 0xea, 0xa7, 0x0c, 0xbf, 0xd8, 0xcb, 0x56, 0x78, 0x1e, 0xf2, 0xb5, 0xb2, 0xd3, 0xf2, 0x49,
    0xc1, 0xb5, 0x71, 0xa2, 0x80, 0x28, 0x00, 0x04, 0xe5, 0x7a, 0x3b, 0xcf};

const std::vector<uint8_t> SampleIpv4Response = {
    0x01, 0x01, 0x00, 0x3c, 0x21, 0x12, 0xa4, 0x42, 0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34, 0xd6, 0x86,
    0xfa, 0x87, 0xdf, 0xae, 0x80, 0x22, 0x00, 0x0b, 0x74, 0x65, 0x73, 0x74, 0x20, 0x76, 0x65, 0x63,
    0x74, 0x6f, 0x72, 0x20, 0x00, 0x20, 0x00, 0x08, 0x00, 0x01, 0xa1, 0x47, 0xe1, 0x12, 0xa6, 0x43,
    0x00, 0x08, 0x00, 0x14, 0x2b, 0x91, 0xf5, 0x99, 0xfd, 0x9e, 0x90, 0xc3, 0x8c, 0x74, 0x89, 0xf9,
    0x2a, 0xf9, 0xba, 0x53, 0xf0, 0x6b, 0xe7, 0xd7, 0x80, 0x28, 0x00, 0x04, 0xc0, 0x7d, 0x4c, 0x96};

const std::vector<uint8_t> SampleIpv6Response = {
    0x01, 0x01, 0x00, 0x48, 0x21, 0x12, 0xa4, 0x42, 0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34, 0xd6, 0x86,
    0xfa, 0x87, 0xdf, 0xae, 0x80, 0x22, 0x00, 0x0b, 0x74, 0x65, 0x73, 0x74, 0x20, 0x76, 0x65, 0x63,
    0x74, 0x6f, 0x72, 0x20, 0x00, 0x20, 0x00, 0x14, 0x00, 0x02, 0xa1, 0x47, 0x01, 0x13, 0xa9, 0xfa,
    0xa5, 0xd3, 0xf1, 0x79, 0xbc, 0x25, 0xf4, 0xb5, 0xbe, 0xd2, 0xb9, 0xd9, 0x00, 0x08, 0x00, 0x14,
    0xa3, 0x82, 0x95, 0x4e, 0x4b, 0xe6, 0x7b, 0xf1, 0x17, 0x84, 0xc9, 0x7c, 0x82, 0x92, 0xc2, 0x75,
    0xbf, 0xe3, 0xed, 0x41, 0x80, 0x28, 0x00, 0x04, 0xc8, 0xfb, 0x0b, 0x4c};

std::string text(const std::optional<Attribute>& record) {
  return record ? std::string(record->value.begin, record->value.end) : std::string("(absent)");
}

Message parsed(const std::vector<uint8_t>& bytes) {
  Message m;
  EXPECT_TRUE(m.parse(bytes.data(), bytes.size()));
  return m;
}

TEST(SampleMessagesTest, Request) {
  EXPECT_TRUE(isStunMessage(SampleRequest.data(), SampleRequest.size(), true));
  const Message m = parsed(SampleRequest);
  EXPECT_EQ(m.messageClass(), Message::Request);
  EXPECT_EQ(m.method(), Message::MethodBinding);
  EXPECT_EQ(m.transactionId(), SampleId);
  EXPECT_EQ(text(m.findAttribute(Message::Software)), "STUN test client");
  EXPECT_EQ(loadBigEndian32(m.findAttribute(Message::Priority)->value.begin), 0x6e0001ffu);
  EXPECT_EQ(loadBigEndian64(m.findAttribute(Message::IceControlled)->value.begin), 0x932ff9b151263b36u);
  EXPECT_EQ(text(m.findAttribute(Message::Username)), "evtj:h6vY");
  EXPECT_TRUE(checkMessageIntegrity(m, Password));
  EXPECT_TRUE(checkCredentials(m, "evtj:h6vY", Password));
  EXPECT_FALSE(checkMessageIntegrity(m, Password + "x"));
  EXPECT_FALSE(checkCredentials(m, "evtj:h6v", Password));   // a prefix of the sent name
  EXPECT_FALSE(checkCredentials(m, "evtj:h6vYY", Password));  // sent name is a prefix of this
}

TEST(SampleMessagesTest, Responses) {
  const std::pair<const std::vector<uint8_t>*, SocketAddress> samples[] = {
      {&SampleIpv4Response, SocketAddress(2, "192.0.2.1", 32853)},
      {&SampleIpv6Response, SocketAddress(10, "2001:db8:1234:5678:11:2233:4455:6677", 32853)}};
  for (const auto& sample : samples) {
    const std::vector<uint8_t>& bytes = *sample.first;
    EXPECT_TRUE(isStunMessage(bytes.data(), bytes.size(), true));
    const Message m = parsed(bytes);
    EXPECT_EQ(m.messageClass(), Message::SuccessResponse);
    EXPECT_EQ(m.transactionId(), SampleId);
    EXPECT_EQ(text(m.findAttribute(Message::Software)), "test vector");
    EXPECT_EQ(m.getMappedAddress(), sample.second);
    EXPECT_TRUE(checkMessageIntegrity(m, Password));
  }
}

TEST(SampleMessagesTest, RebuildingTheIpv4ResponseGivesTheSameBytes) {
  Message m(Message::SuccessResponse, Message::MethodBinding, SampleId);
  // The sample pads with spaces; the bytes that differ are only the padding.
  m.addStringAttribute(Message::Software, "test vector");
  m.mutableData()[m.size() - 1] = ' ';
  m.addXorMappedAddress(SocketAddress(2, "192.0.2.1", 32853));
  ASSERT_TRUE(addMessageIntegrity(m, Password));
  ASSERT_TRUE(addFingerprint(m));
  EXPECT_EQ(m.bytes(), SampleIpv4Response);
}

TEST(SampleMessagesTest, EveryCorruptedByteIsNoticed) {
  for (std::size_t i = 0; i < SampleRequest.size(); ++i) {
    std::vector<uint8_t> bytes = SampleRequest;
    bytes[i] ^= 0x01;
    EXPECT_FALSE(isStunMessage(bytes.data(), bytes.size(), true)) << "byte " << i;
    if (i < SampleRequest.size() - 8) {  // before the fingerprint record
      Message m;
      if (m.parse(bytes.data(), bytes.size())) {
        EXPECT_FALSE(checkMessageIntegrity(m, Password)) << "byte " << i;
      }
    }
  }
}

TEST(IntegrityTest, CredentialsThenFingerprintStillVerify) {
  Message m(Message::Request, Message::MethodBinding, SampleId);
  m.addIntegerAttribute(Message::Priority, 4, 12345);
  ASSERT_TRUE(addCredentials(m, "remote:local", "password"));
  ASSERT_TRUE(addFingerprint(m));
  EXPECT_EQ(loadBigEndian16(m.data() + 2), m.size() - 20);  // counts the fingerprint
  EXPECT_TRUE(checkCredentials(m, "remote:local", "password"));
  EXPECT_FALSE(checkCredentials(m, "local:remote", "password"));
  EXPECT_TRUE(isStunMessage(m.data(), m.size(), true));

  Message noIntegrity(Message::Request, 1, SampleId);
  EXPECT_FALSE(checkMessageIntegrity(noIntegrity, ""));
  EXPECT_FALSE(checkCredentials(noIntegrity, "", ""));
  const uint8_t shortValue[19] = {};
  noIntegrity.addAttribute(Message::MessageIntegrity, shortValue, shortValue + sizeof shortValue);
  EXPECT_FALSE(checkMessageIntegrity(noIntegrity, ""));

  EXPECT_THROW(addMessageIntegrity(m, std::string(65, 'k')), std::logic_error);

  // No room left for the fingerprint: the caller must know it is missing.
  Message full(Message::Request, Message::MethodBinding, SampleId);
  ASSERT_TRUE(full.addStringAttribute(0x7000, std::string(0xFFFF - 8, 'x')));
  EXPECT_FALSE(addFingerprint(full));
  EXPECT_FALSE(addMessageIntegrity(full, "key"));  // nor for the integrity record
  EXPECT_FALSE(isStunMessage(full.data(), full.size(), true));
}

TEST(ClassifierTest, HeaderAndFingerprintChecks) {
  Message m(Message::Request, 1, SampleId);
  m.addStringAttribute(Message::Software, "abc");
  const std::vector<uint8_t> bare = m.bytes();
  addFingerprint(m);
  const std::vector<uint8_t> signed_ = m.bytes();
  using Bytes = std::vector<uint8_t>;
  const struct {
    const char* name;
    const Bytes& from;
    std::function<void(Bytes&)> change;
    bool fingerprint, stun;
  } table[] = {
      {"no fingerprint needed", bare, [](Bytes&) {}, false, true},
      {"no fingerprint", bare, [](Bytes&) {}, true, false},
      {"fingerprint", signed_, [](Bytes&) {}, true, true},
      {"short header", bare, [](Bytes& b) { b.resize(19); }, false, false},
      {"cookie", bare, [](Bytes& b) { b[7] ^= 1; }, false, false},
      {"length beyond the datagram", bare, [](Bytes& b) { b[3] += 4; }, false, false},
      {"top bits: left to parse", bare, [](Bytes& b) { b[0] = 0xC0; }, false, true},
      {"fingerprint of the wrong length", signed_, [](Bytes& b) { storeBigEndian16(b.data() + b.size() - 6, 3); }, true, false},
      {"record overrunning the datagram", signed_, [](Bytes& b) { storeBigEndian16(b.data() + 22, 200); }, true, false},
      {"trailing part of a record", signed_, [](Bytes& b) { b.pop_back(); }, true, false},
  };
  for (const auto& row : table) {
    Bytes bytes = row.from;
    row.change(bytes);
    EXPECT_EQ(row.stun, isStunMessage(bytes.data(), bytes.size(), row.fingerprint)) << row.name;
  }
}

}  // namespace
}  // namespace stun
}  // namespace quorvel
