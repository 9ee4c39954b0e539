#include "revhttp/link_field.h"

#include <string>

#include <gtest/gtest.h>

namespace quorvel {
namespace {

std::string linkIn(const std::string& fields, const char* relation,
                   const char* base = "https://k.relay.test/rhttp/register") {
  const std::string head = "HTTP/1.1 201 Created\r\n" + fields;
  return findLink(MessageHeaders::parseResponse(head.data(), head.size()), relation, base);
}

TEST(LinkField, RelativeQuotedAndUnquotedReferencesResolveAgainstTheBase) {
  EXPECT_EQ(linkIn("Link: <relay/abc>; rel=\"first\"\r\n", "first"), "https://k.relay.test/rhttp/relay/abc");
  EXPECT_EQ(linkIn("Link: </r/1>; rel=first\r\n", "first"), "https://k.relay.test/r/1");
  EXPECT_EQ(linkIn("Link: <//other.test/x>; rel=next\r\n", "next"), "https://other.test/x");
  EXPECT_EQ(linkIn("Link: <http://h:8080/rhttp/reply/9>; rel=\"reply\"\r\n", "reply"), "http://h:8080/rhttp/reply/9");
  EXPECT_EQ(linkIn("Link: <>; rel=next\r\n", "next"), "https://k.relay.test/rhttp/register");
}

// Only a "Link" field, so spelt, holding one link whose one parameter is
// exactly the relation, counts.
TEST(LinkField, OtherFieldsAreSkippedAndTheFirstMatchWins) {
  for (const char* field : {"link: </r/1>; rel=\"next\"\r\n", "LINK: </r/1>; rel=\"next\"\r\n",
                            "Link: </r/1>; rel=\"Next\"\r\n", "Link: </r/1>; rel=\"nextly\"\r\n",
                            "Link: </a>; rel=\"next\", </b>; rel=\"reply\"\r\n",
                            "Link: </a>; rel=\"next\"; title=x\r\n", "Link: </a>; rel=next;\r\n",
                            "Link: /a; rel=next\r\n", "Link: </a; rel=next\r\n", "Link: </a>\r\n"}) {
    EXPECT_EQ(linkIn(field, "next"), "") << field;
  }
  // A lone quote is a one-character relation, not an empty quoted one.
  EXPECT_EQ(linkIn("Link: </a>; rel=\"\r\n", "\""), "https://k.relay.test/a");
  EXPECT_EQ(linkIn("Link: /bad; rel=next\r\nLink: </r/2>; rel=reply\r\nLink: </r/3>; rel=next\r\n"
                   "Link: </r/4>; rel=next\r\n",
                   "next"),
            "https://k.relay.test/r/3");
}

// The relay loop reads "next" and "reply" in one walk, unresolved; a missing
// one has no text at all, while "<>" is a reference to the base.
TEST(LinkField, SeveralRelationsInOneWalk) {
  const std::string head =
      "HTTP/1.1 200 OK\r\nLink: <>; rel=reply\r\nLink: </r/2>; rel=next\r\nLink: </r/3>; rel=reply\r\n";
  const MessageHeaders headers = MessageHeaders::parseResponse(head.data(), head.size());
  const StringSection relations[] = {"next", "reply", "first"};
  StringSection found[3];
  findLinkReferences(headers, relations, found, 3);
  EXPECT_EQ("/r/2", found[0].str());
  ASSERT_NE(nullptr, found[1].data());
  EXPECT_TRUE(found[1].empty());
  EXPECT_EQ(nullptr, found[2].data());

  // Only the first `count` relations are looked for and written: a 204 asks
  // for "next" alone, with room for two.
  StringSection two[3] = {StringSection(), StringSection(), StringSection("kept")};
  findLinkReferences(headers, relations, two, 2);
  EXPECT_EQ("/r/2", two[0].str());
  EXPECT_EQ("kept", two[2].str());
  const StringSection replyFirst[] = {"next", "reply"};
  StringSection one[2];
  findLinkReferences(headers, replyFirst, one, 1);
  EXPECT_EQ("/r/2", one[0].str());
  EXPECT_EQ(nullptr, one[1].data());
}

}  // namespace
}  // namespace quorvel
