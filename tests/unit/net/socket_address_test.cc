#include <netinet/in.h>

#include <sstream>

#include <gtest/gtest.h>

#include "tests/unit/net/thrown_text.h"

#include "net/socket_address.h"

namespace quorvel {
namespace {

using testing::thrownText;

TEST(SocketAddressTest, EmptyAndSpecialFamily) {
  SocketAddress empty;
  EXPECT_FALSE(empty.valid());
  EXPECT_EQ(empty.length(), 0u);
  EXPECT_EQ(empty.toString(), "(none)");

  SocketAddress p2p(255, "ignored", 5000);
  EXPECT_EQ(p2p.length(), 4u);
  EXPECT_EQ(p2p.port(), 5000);
  EXPECT_EQ(p2p.addressSize(), 0u);
  EXPECT_EQ(p2p.addressBytes(), nullptr);
  EXPECT_EQ(p2p.addressText(), "");
  EXPECT_FALSE(p2p.isLoopback());
  EXPECT_EQ(p2p.toString(), "p2p:5000");
  EXPECT_EQ(thrownText([&] { SocketAddress(p2p, 1); }), "Invalid SocketAddress family");
}

TEST(SocketAddressTest, ParsesTextIntoThePlatformLayout) {
  SocketAddress v4(AF_INET, "192.0.2.7", 8080);
  ASSERT_EQ(v4.length(), sizeof(sockaddr_in));
  const auto* in = reinterpret_cast<const sockaddr_in*>(v4.raw());
  EXPECT_EQ(in->sin_port, htons(8080));
  EXPECT_EQ(in->sin_addr.s_addr, htonl(0xc0000207));
  EXPECT_EQ(v4.addressText(), "192.0.2.7");
  EXPECT_EQ(v4.toString(), "192.0.2.7:8080");

  SocketAddress v6(AF_INET6, "2001:db8::1", 443);
  ASSERT_EQ(v6.length(), sizeof(sockaddr_in6));
  EXPECT_EQ(v6.addressSize(), 16u);
  EXPECT_EQ(v6.addressBytes()[15], 1);
  std::ostringstream out;
  out << v6;
  EXPECT_EQ(out.str(), "[2001:db8::1]:443");

  SocketAddress moved(v4, 53);
  EXPECT_EQ(moved.toString(), "192.0.2.7:53");
  EXPECT_EQ(SocketAddress(v4.family(), v4.addressBytes(), 4, 8080), v4);
}

TEST(SocketAddressTest, RejectsBadInput) {
  EXPECT_EQ(thrownText([] { SocketAddress(1, "1.2.3.4", 1); }), "Invalid SocketAddress family");
  EXPECT_EQ(thrownText([] { SocketAddress(AF_INET, "1.2.3", 1); }), "Invalid SocketAddress string");
  EXPECT_EQ(thrownText([] { SocketAddress(AF_INET6, "1.2.3.4", 1); }), "Invalid SocketAddress string");
  const uint8_t bytes[16] = {};
  EXPECT_EQ(thrownText([&] { SocketAddress(AF_INET, bytes, 16, 1); }), "IPv4 address is wrong size");
  EXPECT_EQ(thrownText([&] { SocketAddress(AF_INET6, bytes, 4, 1); }), "IPv6 address is wrong size");
  EXPECT_EQ(thrownText([&] { SocketAddress(255, bytes, 0, 1); }), "Invalid SocketAddress family");
  EXPECT_EQ(thrownText([] { SocketAddress(AF_INET, static_cast<SocketAddress::SpecialAddress>(2), 1); }),
            "Invalid special address");
  EXPECT_EQ(thrownText([] { SocketAddress(255, SocketAddress::Any, 1); }), "Invalid SocketAddress family");

  sockaddr_storage raw[2] = {};
  raw[0].ss_family = 99;
  EXPECT_EQ(SocketAddress(reinterpret_cast<sockaddr*>(raw), 128).length(), 128u);
  EXPECT_EQ(thrownText([&] { SocketAddress(reinterpret_cast<sockaddr*>(raw), 129); }), "Address length too long");
}

TEST(SocketAddressTest, SpecialAddressesAndLoopback) {
  EXPECT_EQ(SocketAddress(AF_INET, SocketAddress::Loopback, 9).toString(), "127.0.0.1:9");
  EXPECT_EQ(SocketAddress(AF_INET6, SocketAddress::Any, 9).addressText(), "::");
  EXPECT_TRUE(SocketAddress(AF_INET6, SocketAddress::Loopback, 9).isLoopback());
  EXPECT_TRUE(SocketAddress(AF_INET, "127.0.0.1", 0).isLoopback());
  EXPECT_TRUE(SocketAddress(AF_INET, "255.1.2.3", 0).isLoopback());
  EXPECT_FALSE(SocketAddress(AF_INET, "126.0.0.1", 0).isLoopback());
  EXPECT_FALSE(SocketAddress(AF_INET6, "::2", 0).isLoopback());
}

TEST(SocketAddressTest, ComparisonRules) {
  const SocketAddress a(AF_INET6, "2001:db8::1", 80);
  const SocketAddress b(AF_INET6, "2001:db8:100::2", 80);  // differs from the fifth byte on
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_NE(a, b);
  EXPECT_TRUE(SocketAddress(AF_INET6, "2001:db8::1", 79) < a);
  EXPECT_TRUE(SocketAddress(AF_INET6, "2001:db7::9", 99) < a);
  // The same link-local address on two interfaces: the scope tells them apart.
  sockaddr_in6 scoped{};
  scoped.sin6_family = AF_INET6;
  scoped.sin6_scope_id = 1;
  const SocketAddress first(reinterpret_cast<const sockaddr*>(&scoped), sizeof scoped);
  scoped.sin6_scope_id = 2;
  const SocketAddress second(reinterpret_cast<const sockaddr*>(&scoped), sizeof scoped);
  EXPECT_TRUE(first < second);
  EXPECT_FALSE(second < first);
  // Flow information comes before the scope, all four of its bytes.
  scoped.sin6_flowinfo = htonl(0x01000000);
  scoped.sin6_scope_id = 1;
  EXPECT_TRUE(second < SocketAddress(reinterpret_cast<const sockaddr*>(&scoped), sizeof scoped));

  const SocketAddress p80(AF_INET, "10.0.0.1", 80);
  const SocketAddress p81(AF_INET, "10.0.0.1", 81);
  EXPECT_TRUE(p80 < p81);
  EXPECT_TRUE(p81 < p80);
  EXPECT_FALSE(p80 < SocketAddress(AF_INET, "10.0.0.1", 80));
  EXPECT_TRUE(SocketAddress(AF_INET, "9.0.0.1", 99) < p80);
  EXPECT_TRUE(p80 < a);  // family first
  EXPECT_TRUE(SocketAddress(255, "", 1) < SocketAddress(255, "", 2));
  EXPECT_FALSE(SocketAddress(255, "", 2) < SocketAddress(255, "", 1));
  EXPECT_FALSE(SocketAddress(255, "", 2) < SocketAddress(255, "", 2));  // maps key on it
  EXPECT_EQ(p80, SocketAddress(AF_INET, "10.0.0.1", 80));

  SocketAddress cleared = p80;
  cleared.clear();
  EXPECT_EQ(cleared, SocketAddress());
}

}  // namespace
}  // namespace quorvel
