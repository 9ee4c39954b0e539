#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/errors.h"
#include "http/data_stream.h"

namespace quorvel {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

using Sink = DataSinkImpl<std::string>;
using Source = DataSourceImpl<std::string>;

// A consumer that drains its sink only when told to, like one that waits for
// a send to complete.
struct Consumer {
  std::shared_ptr<Sink> sink;
  std::vector<std::string> taken;
  int readyCalls = 0;

  explicit Consumer(std::size_t capacity = 1) : sink(std::make_shared<Sink>(capacity)) {
    sink->setReadyHandler([this] { ++readyCalls; });
  }
  void drain() {
    while (sink->hasItem()) taken.push_back(sink->take());
  }
};

TEST(DataStream, ItemsAndEndReachTheSinkInOrder) {
  Consumer consumer(4);
  Source source;
  source.connect(consumer.sink);
  EXPECT_TRUE(source.put("a"));
  EXPECT_TRUE(source.put("b"));
  source.end();
  EXPECT_EQ(consumer.readyCalls, 3);
  EXPECT_FALSE(consumer.sink->isEnded());  // items still queued
  consumer.drain();
  EXPECT_EQ(consumer.taken, (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(consumer.sink->isEnded());
}

// Taken slots are reclaimed while the queue never runs empty.
TEST(DataStream, AQueueThatNeverEmptiesKeepsItsOrder) {
  StreamQueue<int> queue;
  std::vector<int> taken, expected;
  for (int i = 0; i < 40; ++i) {
    queue.push_back(2 * i);
    queue.push_back(2 * i + 1);
    expected.push_back(i);
    taken.push_back(queue.front());
    queue.pop_front();
  }
  EXPECT_EQ(taken, expected);
  EXPECT_EQ(queue.size(), 40u);
}

TEST(DataStream, FullSinkBlocksTheSourceUntilTaken) {
  Consumer consumer(1);
  Source source;
  int unblocked = 0;
  source.setUnblockedHandler([&unblocked] { ++unblocked; });
  source.connect(consumer.sink);
  EXPECT_FALSE(source.put("a"));
  EXPECT_TRUE(source.isBlocked());
  EXPECT_EQ(unblocked, 0);
  consumer.drain();
  EXPECT_EQ(unblocked, 1);
  EXPECT_FALSE(source.isBlocked());
  // Taking again without a pause in between does not call it twice.
  EXPECT_FALSE(source.put("b"));
  EXPECT_FALSE(source.put("c"));  // still accepted
  consumer.drain();
  EXPECT_EQ(unblocked, 2);
  EXPECT_EQ(consumer.taken, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(DataStream, ItemsBeforeConnectWaitInTheSource) {
  Source source;
  int unblocked = 0;
  source.setUnblockedHandler([&unblocked] { ++unblocked; });
  EXPECT_FALSE(source.put("early"));
  EXPECT_TRUE(source.isBlocked());
  source.end();
  Consumer consumer(4);
  source.connect(consumer.sink);
  EXPECT_EQ(unblocked, 1);
  consumer.drain();
  EXPECT_EQ(consumer.taken, (std::vector<std::string>{"early"}));
  EXPECT_TRUE(consumer.sink->isEnded());
}

TEST(DataStream, ExpiredHandlesCannotBeConnectedAndAGoneConsumersItemsAreDropped) {
  std::weak_ptr<Sink> gone;
  {
    auto sink = std::make_shared<Sink>();
    gone = sink;
  }
  Source source;
  EXPECT_THAT([&] { source.connect(gone); }, ThrowsMessage<BadCallError>(StrEq("Can't connect expired handle")));
  EXPECT_THROW(feedSink(gone), BadCallError);
  EXPECT_FALSE(source.isConnected());
  // A consumer that goes after the connect: its items are dropped.
  {
    Consumer consumer;
    source.connect(consumer.sink);
  }
  EXPECT_TRUE(source.put("lost"));
  EXPECT_FALSE(source.isBlocked());
  source.end();
}

TEST(DataStream, HandlersAreNotCalledFromInsideTake) {
  // A producer that refills as soon as it is unblocked; the consumer takes
  // outside its ready handler (as after a send completes). Refills during
  // take() are only queued: the ready handler must not run inside take().
  auto sink = std::make_shared<Sink>(1);
  Source source;
  int produced = 0;
  auto produce = [&] {
    while (produced < 6 && source.put(std::to_string(produced++))) {
    }
  };
  source.setUnblockedHandler(produce);
  bool inTake = false;
  int readyInsideTake = 0;
  sink->setReadyHandler([&] { readyInsideTake += inTake; });
  source.connect(sink);
  produce();
  std::vector<std::string> taken;
  while (sink->hasItem()) {
    inTake = true;
    taken.push_back(sink->take());
    inTake = false;
  }
  EXPECT_EQ(readyInsideTake, 0);
  EXPECT_EQ(taken, (std::vector<std::string>{"0", "1", "2", "3", "4", "5"}));
}

TEST(DataStream, ReadyHandlerIsCalledAgainRatherThanNested) {
  auto sink = std::make_shared<Sink>(1);
  Source source;
  int produced = 0;
  source.setUnblockedHandler([&] {
    if (produced < 4) source.put(std::to_string(produced++));
  });
  std::vector<std::string> taken;
  int depth = 0, maxDepth = 0;
  sink->setReadyHandler([&] {
    maxDepth = std::max(maxDepth, ++depth);
    if (sink->hasItem()) taken.push_back(sink->take());
    // An item put while this handler runs must come as a fresh call.
    if (produced == 1 && source.put(std::to_string(produced++))) {
    }
    --depth;
  });
  source.connect(sink);
  source.put(std::to_string(produced++));
  EXPECT_EQ(maxDepth, 1);
  EXPECT_EQ(taken, (std::vector<std::string>{"0", "1", "2", "3"}));
}

TEST(DataStream, FeedSinkDeliversHandlerCallsToASink) {
  Consumer consumer(8);
  DataHandler<std::string> handler = feedSink(std::weak_ptr<Sink>(consumer.sink));
  handler("x", false);
  handler("", true);
  consumer.drain();
  EXPECT_EQ(consumer.taken, (std::vector<std::string>{"x"}));
  EXPECT_TRUE(consumer.sink->isEnded());
  consumer.sink.reset();
  handler("after", false);  // dropped, no crash
}

// A consumer that wants nothing: what waits is dropped, a producer held back
// goes on, and everything after is taken without holding it back.
TEST(DataStream, ADiscardedSourceDropsEverythingAndHoldsNothingBack) {
  Source source;
  bool unblocked = false;
  source.setUnblockedHandler([&] { unblocked = true; });
  EXPECT_FALSE(source.put("waiting"));
  source.discard();
  EXPECT_TRUE(unblocked);
  EXPECT_FALSE(source.isBlocked());
  EXPECT_TRUE(source.put("more"));
  source.end();
  EXPECT_TRUE(source.isEnded());
}

// The same from the consumer's end, once it has stopped reading: its
// handler is not called again, and a reset sink reads again.
TEST(DataStream, ADiscardingSinkDropsEverythingAndHoldsNothingBack) {
  auto sink = std::make_shared<Sink>(1);
  Source source;
  int unblocks = 0;
  int readies = 0;
  source.setUnblockedHandler([&] { ++unblocks; });
  sink->setReadyHandler([&] { ++readies; });
  source.connect(sink);
  EXPECT_FALSE(source.put("waiting"));
  EXPECT_EQ(readies, 1);
  sink->discard();
  EXPECT_EQ(unblocks, 1);
  EXPECT_FALSE(sink->hasItem());
  EXPECT_TRUE(source.put("more"));
  EXPECT_FALSE(sink->hasItem());
  source.end();
  EXPECT_TRUE(sink->isEnded());
  EXPECT_EQ(readies, 1);
  sink->reset();
  Source next;
  next.connect(sink);
  EXPECT_FALSE(next.put("kept"));
  EXPECT_EQ(sink->take(), "kept");
}

// A sink and a source used for stream after stream: after a reset neither
// reaches what the other end of the last stream was.
TEST(DataStream, ResetEndsAreStrangersToTheLastStream) {
  auto sink = std::make_shared<Sink>(1);
  Source source;
  int unblocks = 0;
  source.setUnblockedHandler([&] { ++unblocks; });
  source.connect(sink);
  EXPECT_FALSE(source.put("a"));  // the sink is full
  source.reset();
  source.setUnblockedHandler([&] { ++unblocks; });
  auto next = std::make_shared<Sink>(1);
  source.connect(next);
  EXPECT_FALSE(source.put("b"));  // waiting again, in the new stream
  EXPECT_EQ(sink->take(), "a");   // the old sink makes room: not for this stream
  EXPECT_EQ(unblocks, 0);
  EXPECT_FALSE(sink->hasItem());
  EXPECT_EQ(next->take(), "b");
  EXPECT_EQ(unblocks, 1);
  sink->put("x");
  sink->end();
  sink->reset();
  EXPECT_FALSE(sink->hasItem());
  EXPECT_FALSE(sink->endArrived());
}

}  // namespace
}  // namespace quorvel
