#include <cerrno>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <usrsctp.h>

#include <gtest/gtest.h>

#include "sctp/sctp_udp_socket.h"
#include "tests/unit/sctp/sctp_fixture.h"
#include "tests/support/wall_clock_steps.h"

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

  sendText(*a, "to A");
  sendText(*b, "to B");
  const Completion& gotA = receiveText(*acceptedA, 100);
  const Completion& gotB = receiveText(*acceptedB, 100);
  run(100);
  EXPECT_EQ(gotA.text, "to A");
  EXPECT_EQ(gotB.text, "to B");
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
  const Completion& sent = sendText(*client, "from=1&to=2");
  run(50);
  ASSERT_TRUE(sent.done);
  EXPECT_EQ(sent.error, 0);
  EXPECT_EQ(sent.bytes, 11u);
  sendText(*client, "second");
  run(50);
  // Two messages are two receives even with room for both.
  std::string texts;
  for (std::size_t room : {4, 1000, 1000}) {
    const Completion& got = receiveText(*accepted, room);
    run(0);
    texts += "|" + got.text;
  }
  EXPECT_EQ(texts, "|from|=1&to=2|second");

  const Completion& gotReply = receiveText(*client, 1000);
  const Completion& reply = sendText(*accepted, "video bytes");
  run(50);
  EXPECT_EQ(reply.error, 0);
  EXPECT_EQ(gotReply.text, "video bytes");
}

TEST_F(StreamData, RepliesGoOnTheStreamTheRequestCameOnWithPpidZero) {
  associate();
  struct socket* raw = static_cast<SctpUdpSocket&>(*client).handle();
  struct sctp_sndinfo out;
  std::memset(&out, 0, sizeof out);
  out.snd_sid = 3;
  out.snd_ppid = htonl(51);
  ASSERT_EQ(usrsctp_sendv(raw, "q=1", 3, nullptr, 0, &out, sizeof out, SCTP_SENDV_SNDINFO, 0), 3);
  const Completion& got = receiveText(*accepted, 100);
  run(50);
  EXPECT_EQ(got.text, "q=1");
  sendText(*accepted, "reply");
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
    const Completion& sent = sendText(*accepted, body);
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
  const Completion& sent = sendText(*accepted, body);
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
  const Completion& got = receiveText(*accepted, 100);
  client->close();
  run(500);
  ASSERT_TRUE(got.done);
  EXPECT_EQ(got.error, 0);
  EXPECT_EQ(got.bytes, 0u);
}

TEST_F(Closing, DeviceCloseDeliversWhatWasSentThenEnds) {
  associate();
  const std::string body = pattern(300000);
  const Completion& sent = sendText(*accepted, body);
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
  const Completion& got = receiveText(*accepted, 100);
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
  const Completion& clientGot = receiveText(*client, 100);
  const Completion& deviceGot = receiveText(*accepted, 100);
  sessions.device->dropping = true;
  sessions.client->dropping = true;
  // Data in flight both ways: the stack's heartbeats go by real time, which
  // does not pass here, so an idle side would not notice.
  sendText(*accepted, pattern(100000));
  sendText(*client, "query");
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
  sendText(*accepted, pattern(1000));
  run(10);
  accepted.reset();  // a graceful shutdown that cannot complete
  listener.reset();
  EXPECT_EQ(service->socketCount(), 2u);
  deviceLink->close();
  deviceLink->close();
  EXPECT_EQ(sessions.device->closes, 1);
  EXPECT_FALSE(sessions.device->hasHandler());
  deviceLink.reset();
  EXPECT_EQ(service->socketCount(), 1u);  // the client's
  client.reset();
  clientLink.reset();
  run(100);
  // The stack's timer runs only while a link or socket exists.
  EXPECT_EQ(service->socketCount(), 0u);
  EXPECT_EQ(service->linkCount(), 0u);
  EXPECT_FALSE(service->timerRunning());
  EXPECT_EQ(reactor->pending(), 0u);
}

// A device that goes while its association still has data on the way (a
// reader that has fallen behind) tells the client: the ABORT leaves on the
// path before the path goes, and the client's next receive ends at once
// rather than after its own retransmission limit.
TEST_F(Closing, ClosingTheLinkTellsThePeerOfShutdownsInProgress) {
  associate();
  sendText(*accepted, pattern(2 * 1024 * 1024));
  run(500);  // the client reads nothing: its window fills
  accepted->close();  // a graceful shutdown waiting for the data to be taken
  accepted.reset();
  deviceLink->close();
  // Whatever had arrived may still be read first; the end follows it
  // within a second.
  const Completion& got = readToTheEnd(*client);
  ASSERT_TRUE(got.done);
  EXPECT_NE(got.error, 0);
}

using Timers = SctpFixture;

TEST_F(Timers, SlowDownWhenQuietAndSpeedUpWithTheNextPacket) {
  associate();
  reactor->advance(Duration::seconds(2));  // heartbeats come every 10 s
  const SteadyTime now = reactor->clock().now();
  EXPECT_GT(reactor->nextDue() - now, Duration::milliseconds(10));
  EXPECT_LE(reactor->nextDue() - now, Duration::milliseconds(250));
  sendText(*client, "query");
  EXPECT_EQ(reactor->nextDue(), now);  // the packet on its way
  run(0);
  EXPECT_LE(reactor->nextDue() - now, Duration::milliseconds(10));
  const Completion& got = receiveText(*accepted, 100);
  run(0);
  EXPECT_EQ(got.text, "query");
}

// The stack's timers are driven by elapsed monotonic time: a step of the wall
// clock neither fires them in a burst nor holds them back.
TEST(SctpClock, AWallClockStepMovesNoStackTimer) {
  struct Run : SctpFixture {
    void TestBody() override {}
    std::vector<int64_t> trace(Duration step) {
      associate();
      run(2000);
      reactor->stepWallClock(step);
      std::vector<int64_t> seen{(reactor->nextDue() - reactor->clock().now()).count()};
      sendText(*client, "query");
      run(0);
      seen.push_back((reactor->nextDue() - reactor->clock().now()).count());
      const Completion& got = receiveText(*accepted, 100);
      run(30000);  // heartbeats and their answers
      seen.push_back(got.text == "query");
      seen.push_back(sessions.device->sends);
      return seen;
    }
  };
  expectNoWallClockStepMatters([](Duration step) { return Run().trace(step); });
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
