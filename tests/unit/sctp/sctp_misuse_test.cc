#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <netinet/in.h>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/unit/net/thrown_text.h"
#include "tests/unit/sctp/sctp_fixture.h"

namespace quorvel {
namespace testing {
namespace {

using Misuse = SctpFixture;

TEST_F(Misuse, IsRefusedWithItsOwnText) {
  associate();
  std::shared_ptr<AsyncSocket> fresh = clientLink->createSocket(SocketAddress::FamilySpecial, SOCK_STREAM, 0);
  const SocketAddress ipv4(2, "198.18.1.2", 5000);
  const AsyncSocket::TransferCallback ignore = [](int, std::size_t) {};
  receiveText(*accepted, 10);

  const struct {
    const char* text;
    std::function<void()> call;
  } cases[] = {
      {"Only point to point sockets are supported", [&] { deviceLink->createSocket(2, SOCK_STREAM, 0); }},
      {"Only point to point sockets are supported",
       [&] { deviceLink->createListener(SocketAddress::FamilySpecial, SOCK_DGRAM, 0); }},
      {"Unsupported address type", [&] { fresh->bind(ipv4); }},
      {"Unsupported address type", [&] { fresh->connect(ipv4, [](int) {}); }},
      {"Unsupported address type", [&] { listener->bind(ipv4); }},
      {"Unexpected connect call", [&] { client->connect(p2p(5000), [](int) {}); }},
      {"Unexpected send call", [&] { fresh->send(chainOf("x"), ignore); }},
      {"Empty send call", [&] { client->send(BufferChainPtr(), ignore); }},
      {"Unexpected recv call", [&] { fresh->receive(chainOf("x"), ignore); }},
      {"Unexpected recv call", [&] { accepted->receive(chainOf("x"), ignore); }},
      {"Empty recv call", [&] { client->receive(BufferChainPtr(BufferChain()), ignore); }},
      {"sendTo not supported for SCTP sockets", [&] { client->sendTo(chainOf("x"), p2p(5000), ignore); }},
      {"receiveFrom not supported for SCTP sockets",
       [&] { client->receiveFrom(chainOf("x"), [](int, std::size_t, const SocketAddress&) {}); }},
      {"Failed to set socket option", [&] { client->setOption(IPPROTO_SCTP, 0x7fff, "", 0); }},
      {"Failed to set socket option", [&] { listener->setOption(IPPROTO_SCTP, 0x7fff, "", 0); }},
      {"Failed to get socket option", [&] { std::size_t n = 0; client->getOption(IPPROTO_SCTP, 0x7fff, nullptr, n); }},
      {"Failed to bind to point to point address",
       [&] { deviceLink->createSocket(SocketAddress::FamilySpecial, SOCK_STREAM, 0)->bind(p2p(5000)); }},
  };
  for (const auto& c : cases) EXPECT_EQ(thrownText(c.call), c.text);

  // A second send while one waits for room.
  sendText(*client, std::string(3 * 1024 * 1024, 'x'));
  EXPECT_EQ(thrownText([&] { client->send(chainOf("x"), ignore); }), "Unexpected send call");
}

// An accept the stack refuses is reported, not left waiting for ever; an
// error that persists is logged once, however often the owner retries.
TEST_F(Misuse, AcceptBeforeListenFailsAndIsLoggedOnce) {
  std::shared_ptr<LogCapture> capture = LogCapture::install();
  listener = deviceLink->createListener(SocketAddress::FamilySpecial, SOCK_STREAM, 0);
  listener->bind(p2p(5000));
  std::vector<int> errors;
  for (int attempt = 0; attempt < 5; ++attempt) {
    listener->accept([&errors](int e, std::shared_ptr<AsyncSocket>) { errors.push_back(e); });
    run(0);
  }
  EXPECT_EQ(errors, std::vector<int>(5, EINVAL));
  EXPECT_EQ(capture->count("Accept failed"), 1u);
}

TEST_F(Misuse, LogLinesNameHandlesAndAddresses) {
  std::shared_ptr<LogCapture> capture = LogCapture::install();
  log::setLevel("icesessionlink", log::Debug);
  log::setLevel("sctpudpsocket", log::Info);
  auto link = std::make_shared<SctpIceSessionLink>(reactor, service, sessions.device);
  std::shared_ptr<AsyncSocket> socket = link->createSocket(SocketAddress::FamilySpecial, SOCK_STREAM, 0);
  socket.reset();
  link.reset();
  log::setLevel("icesessionlink", 0);
  log::setLevel("sctpudpsocket", 0);
  std::vector<std::string> lines;
  for (const LogCapture::Line& line : capture->lines()) lines.push_back(line.log + " " + line.message);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "icesessionlink Registering address 0x3");
  EXPECT_EQ(lines[1].rfind("sctpudpsocket Created socket 0x", 0), 0u);
  EXPECT_NE(lines[1].find(", connData 0x3"), std::string::npos);
  EXPECT_EQ(lines[2].rfind("sctpudpsocket Closing socket 0x", 0), 0u);
  // The same handle and link address when it goes.
  auto named = [](const std::string& line) { return line.substr(line.find(" socket ")); };
  EXPECT_EQ(named(lines[1]), named(lines[2]));
  EXPECT_EQ(lines[3], "icesessionlink Deregistering address 0x3");
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
