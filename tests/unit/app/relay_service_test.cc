#include "app/relay_service.h"

#include <gtest/gtest.h>

namespace quorvel {
namespace ferrule {
namespace {

TEST(RelayRegistrationUrl, KeyIsTheFirstLabelAndABasePathIsKept) {
  EXPECT_EQ(relayRegistrationUrl("0123abcd", "relay.example.test"),
            "https://0123abcd.relay.example.test/rhttp/register");
  EXPECT_EQ(relayRegistrationUrl("k", "relay.example.test/"), "https://k.relay.example.test/rhttp/register");
  EXPECT_EQ(relayRegistrationUrl("k", "relay.example.test:8443/devices"),
            "https://k.relay.example.test:8443/devices/rhttp/register");
  EXPECT_EQ(relayRegistrationUrl("k", "relay.example.test/devices/"),
            "https://k.relay.example.test/devices/rhttp/register");
}

}  // namespace
}  // namespace ferrule
}  // namespace quorvel
