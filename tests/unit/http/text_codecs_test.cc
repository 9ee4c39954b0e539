#include <cctype>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "http/message_headers.h"
#include "http/string_section.h"
#include "http/text_codecs.h"
#include "http/url.h"

namespace quorvel {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

TEST(StringSection, SubstrAtEndIsEmptyAndPastEndThrows) {
  const StringSection text("abc");
  EXPECT_TRUE(text.substr(3).empty());
  EXPECT_EQ(text.substr(1, 100).str(), "bc");
  EXPECT_EQ(text.substr(1, 1).str(), "b");
  EXPECT_THAT([&] { text.substr(4); },
              ThrowsMessage<std::out_of_range>(StrEq("StringSection::substr pos out of range")));
}

TEST(StringSection, FindsAndTrims) {
  const StringSection text("a/b/c");
  EXPECT_EQ(text.find('/'), 1u);
  EXPECT_EQ(text.find('/', 2), 3u);
  EXPECT_EQ(text.find('x'), StringSection::npos);
  EXPECT_EQ(text.find("b/c"), 2u);
  EXPECT_EQ(text.find("c/"), StringSection::npos);
  EXPECT_EQ(text.find("/c"), 3u);  // past a first byte that matched alone
  EXPECT_EQ(text.find("/c", 4), StringSection::npos);
  EXPECT_EQ(text.find("c", 4), 4u);
  EXPECT_EQ(text.find("", 5), 5u);  // an empty text is found even at the end
  EXPECT_EQ(text.find("", 6), StringSection::npos);
  EXPECT_EQ(text.rfind('/'), 3u);
  EXPECT_EQ(text.rfind('/', 3), 1u);  // strictly before the position
  EXPECT_EQ(text.rfind('a', 0), StringSection::npos);
  EXPECT_EQ(StringSection(" \t x y \r\n").trim().str(), "x y");
  EXPECT_TRUE(StringSection("  ").trim().empty());
  EXPECT_TRUE(StringSection().trim().empty());
}

TEST(StringSection, ComparesWithAndWithoutCase) {
  EXPECT_TRUE(StringSection("Content-Length").equalsIgnoreCase("content-length"));
  EXPECT_FALSE(StringSection("Content-Length").equals("content-length"));
  EXPECT_FALSE(StringSection("Content-Lengt").equalsIgnoreCase("content-length"));
  EXPECT_TRUE(StringSection() == StringSection(""));
  EXPECT_TRUE(StringSection("/rhttp").startsWith("/rhttp"));  // a whole text starts with itself
  EXPECT_FALSE(StringSection("/rhtt").startsWith("/rhttp"));
}

// Every pair of byte values, at places in texts long and short: only ASCII
// letters match their other case.
TEST(StringSection, IgnoresTheCaseOfAsciiLettersOnly) {
  for (const std::size_t length : {1u, 7u, 8u, 9u, 16u, 17u}) {
    for (std::size_t at = 0; at < length; at += (length > 8 ? 4 : 3)) {
      std::string a(length, 'k');
      std::string b(length, 'K');
      for (int x = 0; x < 256; ++x) {
        for (int y = 0; y < 256; ++y) {
          a[at] = static_cast<char>(x);
          b[at] = static_cast<char>(y);
          const bool sameLetter = x < 128 && std::isalpha(x) && std::tolower(x) == std::tolower(y);
          ASSERT_EQ(x == y || sameLetter, StringSection(a).equalsIgnoreCase(b))
              << "bytes " << x << " and " << y << " at " << at << " of " << length;
        }
      }
    }
  }
}

TEST(StringSection, ParsesWholeUnsignedNumbers) {
  uint32_t value = 7;
  EXPECT_TRUE(parseUnsigned("4294967295", value));
  EXPECT_EQ(value, 4294967295u);
  EXPECT_FALSE(parseUnsigned("4294967296", value));
  EXPECT_FALSE(parseUnsigned("12a", value));
  EXPECT_FALSE(parseUnsigned("", value));
  EXPECT_FALSE(parseUnsigned("-1", value));
  EXPECT_TRUE(parseUnsigned("fFfF", value, 16));
  EXPECT_EQ(value, 0xffffu);
  EXPECT_FALSE(parseUnsigned("g", value, 16));
}

TEST(Url, TakesUrlsApart) {
  EXPECT_EQ(Url::scheme("https://relay.test:8443/rhttp/x?y=/z"), "https");
  EXPECT_EQ(Url::authority("https://relay.test:8443/rhttp/x?y=/z"), "relay.test:8443");
  EXPECT_EQ(Url::path("https://relay.test:8443/rhttp/x?y=/z"), "/rhttp/x?y=/z");
  EXPECT_EQ(Url::authority("http://host"), "host");
  EXPECT_EQ(Url::path("http://host"), "");
  EXPECT_EQ(Url::scheme("no-colon"), "");
  EXPECT_EQ(Url::authority("mailto:a@b"), "");
  EXPECT_EQ(Url::path("mailto:a/b"), "");
}

TEST(Url, ResolvesReferences) {
  const std::string base = "https://relay.test/a/b";
  EXPECT_EQ(Url::resolve(base, ""), base);
  EXPECT_EQ(Url::resolve(base, "next/1"), "https://relay.test/a/next/1");
  EXPECT_EQ(Url::resolve(base, "/r/2"), "https://relay.test/r/2");
  EXPECT_EQ(Url::resolve(base, "//other.test/p"), "https://other.test/p");
  EXPECT_EQ(Url::resolve(base, "http://x/y"), "http://x/y");
  EXPECT_EQ(Url::resolve(base, "a?x=1:2"), "a?x=1:2");  // any ":" makes it absolute
  EXPECT_EQ(Url::resolve(base, "../c"), "https://relay.test/a/../c");
  EXPECT_EQ(Url::resolve("https://relay.test", "n"), "https://relay.test/n");
}

// Written into a string kept from URL to URL: what it held before is gone.
TEST(Url, WritesIntoAStringItReplaces) {
  std::string out = "https://left.over/from/before/and/longer";
  Url::resolve("https://relay.test/a/b", "next/1", out);
  EXPECT_EQ(out, "https://relay.test/a/next/1");
  Url::withScheme("https://relay.test/reply/1", "http", out);
  EXPECT_EQ(out, "http://relay.test/reply/1");
  EXPECT_EQ(Url::withScheme("relay.test/reply", "http"), "relay.test/reply");  // only a scheme is replaced
  Url::resolve("https://relay.test/a/b", "", out);
  EXPECT_EQ(out, "https://relay.test/a/b");
  EXPECT_EQ(Url::pathOf("https://relay.test:8443/rhttp/x?y=/z").str(), "/rhttp/x?y=/z");
  EXPECT_EQ(Url::authorityOf("http://host").str(), "host");
}

TEST(PercentEncoding, EncodesAllButUnreservedBytes) {
  EXPECT_EQ(PercentEncoding::encode(" "), "%20");
  EXPECT_EQ(PercentEncoding::encode("~"), "~");
  EXPECT_EQ(PercentEncoding::encode("a-Z_0.~"), "a-Z_0.~");
  EXPECT_EQ(PercentEncoding::encode("/?&+\xff"), "%2F%3F%26%2B%FF");
  // The zero byte passes through unescaped.
  EXPECT_EQ(PercentEncoding::encode(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(PercentEncoding, DecodesEscapesAndKeepsPlus) {
  EXPECT_EQ(PercentEncoding::decode("a%20b+c%2f%2F"), "a b+c//");
  EXPECT_EQ(PercentEncoding::decode("%00"), std::string(1, '\0'));
  for (const std::string bad : {"%", "ab%4", "%4"}) {
    EXPECT_THAT([&] { PercentEncoding::decode(bad); },
                ThrowsMessage<std::runtime_error>(StrEq("Unexpected end of input in percent-encoded text"))) << bad;
  }
  for (const std::string bad : {"%G1", "%1G", "x%-1"}) {
    EXPECT_THAT([&] { PercentEncoding::decode(bad); },
                ThrowsMessage<std::runtime_error>(StrEq("Bad hex character in percent-encoded text"))) << bad;
  }
}

TEST(PercentEncoding, RoundTripsEveryByte) {
  std::string all;
  for (int i = 1; i < 256; ++i) all += static_cast<char>(i);
  EXPECT_EQ(PercentEncoding::decode(PercentEncoding::encode(all)), all);
}

TEST(Base64, PadsToFourCharacters) {
  EXPECT_EQ(Base64::encode(""), "");
  EXPECT_EQ(Base64::encode("f"), "Zg==");
  EXPECT_EQ(Base64::encode("fo"), "Zm8=");
  EXPECT_EQ(Base64::encode("foo"), "Zm9v");
  EXPECT_EQ(Base64::encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(Base64::encode("\xfb\xff"), "+/8=");
}

TEST(Base64, AddsBasicAuthorization) {
  MessageHeaders headers = MessageHeaders::request("GET", "/", HttpVersion::V11);
  setBasicAuthorization(headers, "a", "b");
  const auto field = headers.find("authorization");
  ASSERT_NE(field, headers.end());
  EXPECT_EQ(field->value.str(), "Basic YTpi");
}

}  // namespace
}  // namespace quorvel
