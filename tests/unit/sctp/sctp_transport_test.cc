#include <cerrno>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <usrsctp.h>

#include <gtest/gtest.h>

#include "sctp/sctp_udp_socket.h"
#include "tests/unit/sctp/sctp_fixture.h"

namespace quorvel {
namespace testing {
namespace {

std::string pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 1000) % 26);
  return text;
}

using Association = SctpFixture;

TEST_F(Association, AssociationsOnOneLinkAreToldApartByTheClientPort) {
  listen();
  Completion first, second;
  std::shared_ptr<AsyncSocket> a = connectFrom(5000, first);
  std::shared_ptr<AsyncSocket> b = connectFrom(0, second);
  std::shared_ptr<AsyncSocket> acceptedA = acceptOne();
  std::shared_ptr<AsyncSocket> acceptedB = acceptOne();
  ASSERT_TRUE(acceptedA && acceptedB);
  EXPECT_EQ(first.error, 0);
  EXPECT_EQ(second.error, 0);
  if (acceptedA->remoteAddress() != p2p(5000)) std::swap(acceptedA, acceptedB);
  EXPECT_EQ(acceptedA->remoteAddress(), p2p(5000));
  EXPECT_NE(b->localAddress().port(), 0);
  EXPECT_EQ(acceptedB->remoteAddress(), b->localAddress());
  EXPECT_EQ(acceptedA->localAddress(), p2p(5000));
  EXPECT_EQ(a->remoteAddress(), p2p(5000));
  EXPECT_EQ(listener->localAddress(), p2p(5000));

  Completion sentA, sentB, gotA, gotB;
  std::string textA, textB;
  sendText(*a, "to A", sentA);
  sendText(*b, "to B", sentB);
  receiveText(*acceptedA, 100, gotA, textA);
  receiveText(*acceptedB, 100, gotB, textB);
  run(100);
  EXPECT_EQ(textA, "to A");
  EXPECT_EQ(textB, "to B");
}

TEST_F(Association, ConnectWithoutListenerFails) {
  Completion connected;
  client = connectFrom(5000, connected);
  run(2000);
  ASSERT_TRUE(connected.done);
  EXPECT_NE(connected.error, 0);
}

using StreamData = SctpFixture;

TEST_F(StreamData, BothWaysOneMessagePerReceiveSplitWhenTheRoomIsSmaller) {
  associate();
  Completion sent1, sent2, got1, got2, got3;
  std::string text1, text2, text3;
  sendText(*client, "from=1&to=2", sent1);
  run(50);
  ASSERT_TRUE(sent1.done);
  EXPECT_EQ(sent1.error, 0);
  EXPECT_EQ(sent1.bytes, 11u);
  sendText(*client, "second", sent2);
  run(50);
  // Two messages are two receives even with room for both.
  receiveText(*accepted, 4, got1, text1);
  run(0);
  receiveText(*accepted, 1000, got2, text2);
  run(0);
  receiveText(*accepted, 1000, got3, text3);
  run(0);
  EXPECT_EQ(text1 + "|" + text2 + "|" + text3, "from|=1&to=2|second");

  Completion reply, gotReply;
  std::string replyText;
  receiveText(*client, 1000, gotReply, replyText);
  sendText(*accepted, "video bytes", reply);
  run(50);
  EXPECT_EQ(reply.error, 0);
  EXPECT_EQ(replyText, "video bytes");
}

TEST_F(StreamData, RepliesGoOnTheStreamTheRequestCameOnWithPpidZero) {
  associate();
  struct socket* raw = static_cast<SctpUdpSocket&>(*client).handle();
  struct sctp_sndinfo out;
  std::memset(&out, 0, sizeof out);
  out.snd_sid = 3;
  out.snd_ppid = htonl(51);
  ASSERT_EQ(usrsctp_sendv(raw, "q=1", 3, nullptr, 0, &out, sizeof out, SCTP_SENDV_SNDINFO, 0), 3);
  Completion got, sent;
  std::string text;
  receiveText(*accepted, 100, got, text);
  run(50);
  EXPECT_EQ(text, "q=1");
  sendText(*accepted, "reply", sent);
  run(50);
  char buffer[16];
  struct sctp_rcvinfo in;
  socklen_t inLength = sizeof in;
  unsigned int infoType = 0;
  int flags = 0;
  ASSERT_EQ(usrsctp_recvv(raw, buffer, sizeof buffer, nullptr, nullptr, &in, &inLength, &infoType, &flags), 5);
  EXPECT_EQ(std::string(buffer, 5), "reply");
  ASSERT_EQ(infoType, unsigned(SCTP_RECVV_RCVINFO));
  EXPECT_EQ(in.rcv_sid, 3);
  EXPECT_EQ(in.rcv_ppid, 0u);
  EXPECT_TRUE(flags & MSG_EOR);
}

TEST_F(StreamData, LargeSendsArriveByteExact) {
  associate();
  for (std::size_t size : {1u, 511u, 512u, 513u, 65536u, 65537u, 1000000u}) {
    SCOPED_TRACE(size);
    const std::string body = pattern(size);
    Completion sent;
    sendText(*accepted, body, sent);
    EXPECT_EQ(readAll(*client, size), body);
    run(10);
    EXPECT_TRUE(sent.done);
    EXPECT_EQ(sent.error, 0);
    EXPECT_EQ(sent.bytes, size);
  }
}

using FlowControl = SctpFixture;

TEST_F(FlowControl, ASendWaitsForTheReaderOnceTheWindowIsFull) {
  associate();
  const std::string body = pattern(4 * 1024 * 1024);
  Completion sent;
  sendText(*accepted, body, sent);
  run(2000);
  // The receiver's window and the sender's buffer hold far less than 4 MB.
  EXPECT_FALSE(sent.done);
  EXPECT_EQ(readAll(*client, body.size(), 60000), body);
  run(10);
  EXPECT_TRUE(sent.done);
  EXPECT_EQ(sent.error, 0);
  EXPECT_EQ(sent.bytes, body.size());
}

using Closing = SctpFixture;

TEST_F(Closing, ClientCloseEndsTheDevicesStream) {
  associate();
  Completion got;
  std::string text;
  receiveText(*accepted, 100, got, text);
  client->close();
  run(500);
  ASSERT_TRUE(got.done);
  EXPECT_EQ(got.error, 0);
  EXPECT_EQ(got.bytes, 0u);
}

TEST_F(Closing, DeviceCloseDeliversWhatWasSentThenEnds) {
  associate();
  const std::string body = pattern(300000);
  Completion sent;
  sendText(*accepted, body, sent);
  run(0);
  ASSERT_TRUE(sent.done);
  accepted->close();
  accepted.reset();
  EXPECT_EQ(readAll(*client, body.size() + 1), body);
  client->close();
  run(1000);
  // Only the listener is left in the stack.
  EXPECT_EQ(service->socketCount(), 1u);
}

TEST_F(Closing, OutstandingOperationsEndCancelled) {
  associate();
  Completion got;
  std::string text;
  receiveText(*accepted, 100, got, text);
  accepted->close();
  EXPECT_FALSE(got.done);  // never from inside the call
  run(0);
  EXPECT_EQ(got.error, ECANCELED);
  int acceptError = 0;
  listener->accept([&acceptError](int error, std::shared_ptr<AsyncSocket>) { acceptError = error; });
  listener->close();
  run(0);
  EXPECT_EQ(acceptError, ECANCELED);
}

TEST_F(Closing, LosingTheIceSessionEndsTheAssociation) {
  associate();
  Completion deviceSent, clientSent, clientGot, deviceGot;
  std::string clientText, deviceText;
  receiveText(*client, 100, clientGot, clientText);
  receiveText(*accepted, 100, deviceGot, deviceText);
  sessions.device->dropping = true;
  sessions.client->dropping = true;
  // Data in flight both ways: the stack's heartbeats go by real time, which
  // does not pass here, so an idle side would not notice.
  sendText(*accepted, pattern(100000), deviceSent);
  sendText(*client, "query", clientSent);
  reactor->advance(Duration::seconds(30));
  // Each side gives up after 5 retransmissions, within half a minute.
  ASSERT_TRUE(deviceGot.done);
  EXPECT_NE(deviceGot.error, 0);
  ASSERT_TRUE(clientGot.done);
  EXPECT_NE(clientGot.error, 0);
}

TEST_F(Closing, ClosingTheLinkClosesTheSessionAndAbortsShutdowns) {
  associate();
  sessions.device->dropping = true;
  sessions.client->dropping = true;
  Completion sent;
  sendText(*accepted, pattern(1000), sent);
  run(10);
  accepted.reset();  // a graceful shutdown that cannot complete
  listener.reset();
  EXPECT_EQ(service->socketCount(), 2u);
  deviceLink->close();
  EXPECT_TRUE(sessions.device->closed);
  EXPECT_FALSE(sessions.device->hasHandler());
  deviceLink.reset();
  EXPECT_EQ(service->socketCount(), 1u);  // the client's
  client.reset();
  clientLink.reset();
  run(100);
  EXPECT_EQ(service->socketCount(), 0u);
  EXPECT_EQ(service->linkCount(), 0u);
  EXPECT_FALSE(service->timerRunning());
}

using Timers = SctpFixture;

TEST_F(Timers, RunOnlyWhileALinkOrSocketExists) {
  EXPECT_TRUE(service->timerRunning());
  deviceLink.reset();
  clientLink.reset();
  run(20);
  EXPECT_FALSE(service->timerRunning());
  EXPECT_EQ(reactor->pending(), 0u);
}

TEST_F(Timers, SlowDownWhenQuietAndSpeedUpWithTheNextPacket) {
  associate();
  reactor->advance(Duration::seconds(2));  // heartbeats come every 10 s
  const Time now = reactor->clock().now();
  EXPECT_GT(reactor->nextDue() - now, Duration::milliseconds(10));
  EXPECT_LE(reactor->nextDue() - now, Duration::milliseconds(250));
  Completion sent;
  sendText(*client, "query", sent);
  EXPECT_EQ(reactor->nextDue(), now);  // the packet on its way
  run(0);
  EXPECT_LE(reactor->nextDue() - now, Duration::milliseconds(10));
  Completion got;
  std::string text;
  receiveText(*accepted, 100, got, text);
  run(0);
  EXPECT_EQ(text, "query");
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
