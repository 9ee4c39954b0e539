#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "core/delegate.h"
#include "core/errors.h"

namespace quorvel {

template <typename T>
class DataSourceImpl;

// First in, first out, with nothing allocated until the first push: every
// request and response carries streams whose queues mostly stay empty, and a
// std::deque allocates two blocks as it is made. Taken slots are reclaimed
// when the queue empties, or once they are half of it.
template <typename T>
class StreamQueue {
 public:
  bool empty() const { return head_ == items_.size(); }
  std::size_t size() const { return items_.size() - head_; }
  T& front() { return items_[head_]; }
  // Empties the queue and keeps its room.
  void clear() {
    items_.clear();
    head_ = 0;
  }
  void push_back(const T& item) { items_.push_back(item); }
  void pop_front() {
    items_[head_] = T();  // what the item holds goes now, not at the next compaction
    if (++head_ == items_.size()) {
      items_.clear();
      head_ = 0;
    } else if (head_ >= 16 && head_ * 2 >= items_.size()) {
      items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
      head_ = 0;
    }
  }

 private:
  std::vector<T> items_;
  std::size_t head_ = 0;
};

// A piece of a stream or its end, for consumers that take pieces as they come.
// `end` is true exactly once, on the last call; `item` is then empty.
template <typename T>
using DataHandler = Delegate<void(const T& item, bool end)>;

// The receiving end of a stream: a queue that its consumer drains at its own
// pace. The consumer owns it through a shared pointer and hands out weak
// handles; a source connected to it is held back (blocked) while the queue
// holds `capacity` items or more, so a slow consumer slows the producer down
// instead of filling memory.
//
// Re-entrancy: the ready handler is never called from inside itself or from
// inside take(). Items that arrive meanwhile are only queued, so a consumer
// checks hasItem()/isEnded() again whenever it becomes ready for more.
template <typename T>
class DataSinkImpl {
 public:
  explicit DataSinkImpl(std::size_t capacity = 1) : capacity_(capacity ? capacity : 1) {}
  DataSinkImpl(const DataSinkImpl&) = delete;
  DataSinkImpl& operator=(const DataSinkImpl&) = delete;

  // ---- consumer side
  // Called when an item or the end arrives.
  void setReadyHandler(const Delegate<void()>& handler) { ready_ = handler; }
  bool hasItem() const { return !items_.empty(); }
  std::size_t size() const { return items_.size(); }
  // The oldest item; the queue must not be empty. Taking makes room, which
  // lets a blocked source go on (its unblocked handler runs in here).
  T take();
  // The end has arrived and every item has been taken.
  bool isEnded() const { return endArrived_ && items_.empty(); }
  bool endArrived() const { return endArrived_; }

  // ---- producer side (a connected DataSourceImpl, or an owner feeding it
  // directly)
  void put(const T& item) {
    if (discarding_) return;
    items_.push_back(item);
    notify();
  }
  void end() {
    if (endArrived_) return;
    endArrived_ = true;
    notify();
  }
  bool isFull() const { return items_.size() >= capacity_; }
  // For a consumer that wants nothing more of the stream: what is queued and
  // whatever comes later is dropped, and the source is never held back. No
  // handler is needed for that, so none is made.
  void discard() {
    ready_.clear();
    discarding_ = true;
    while (hasItem()) take();
  }

  // For an owner that uses one sink for stream after stream: back to the
  // state it was made in (items dropped, no handler, no source). A source of
  // the last stream no longer reaches it.
  void reset() {
    items_.clear();
    endArrived_ = notifying_ = again_ = inTake_ = discarding_ = false;
    ready_.clear();
    source_.reset();
    sourceUse_ = 0;
  }

 private:
  friend class DataSourceImpl<T>;
  struct SourceLink;

  void notify();

  StreamQueue<T> items_;
  const std::size_t capacity_;
  bool endArrived_ = false;
  Delegate<void()> ready_;
  bool notifying_ = false;
  bool again_ = false;
  bool inTake_ = false;
  bool discarding_ = false;
  std::weak_ptr<SourceLink> source_;
  // The use of the source's link that this sink was connected in.
  uint64_t sourceUse_ = 0;
};

// The sending end of a stream. Its producer owns it, puts items in and ends
// it; the consumer connects it to a sink. Items put before the connection
// wait in the source (which then counts as blocked) and go over when it is
// made; so does an end signalled before.
template <typename T>
class DataSourceImpl {
 public:
  DataSourceImpl() : link_(std::make_shared<typename DataSinkImpl<T>::SourceLink>()) {}
  DataSourceImpl(const DataSourceImpl&) = delete;
  DataSourceImpl& operator=(const DataSourceImpl&) = delete;

  // Throws BadCallError "Can't connect expired handle" when the sink is gone.
  // A source connects once; a second connect moves it to the new sink.
  void connect(const std::weak_ptr<DataSinkImpl<T>>& handle);
  // For a consumer that wants nothing of the stream: as if connected to a
  // sink that has gone. Items are dropped, now and from then on, and a
  // producer waiting for room goes on.
  void discard();
  bool isConnected() const { return connected_; }

  // Runs when a blocked source may put again (inside the consumer's take() or
  // connect()); it should resume production, e.g. start the next read.
  void setUnblockedHandler(const Delegate<void()>& handler) { link_->unblocked = handler; }

  // Always accepts the item. Returns false when the consumer cannot take
  // more: the producer should pause until the unblocked handler runs. Items
  // for a consumer that has gone are dropped.
  bool put(const T& item);
  void end();
  bool isEnded() const { return ended_; }
  bool isBlocked() const;

  // For an owner that uses one source for stream after stream: back to the
  // state it was made in. A sink of the last stream neither gets anything
  // more nor reaches this source's handler again.
  void reset() {
    ++link_->use;
    link_->waiting = false;
    link_->unblocked.clear();
    sink_.reset();
    pending_.clear();
    connected_ = ended_ = false;
  }

 private:
  std::shared_ptr<typename DataSinkImpl<T>::SourceLink> link_;
  std::weak_ptr<DataSinkImpl<T>> sink_;
  StreamQueue<T> pending_;
  bool connected_ = false;
  bool ended_ = false;
};

// A data handler that feeds a sink, for producers that deliver through a
// handler (e.g. a request's body data handler). Throws BadCallError "Can't
// connect expired handle" when the sink is already gone; pieces that arrive
// after it has gone are dropped.
template <typename T>
DataHandler<T> feedSink(const std::weak_ptr<DataSinkImpl<T>>& handle);

// ---- implementation

template <typename T>
struct DataSinkImpl<T>::SourceLink {
  Delegate<void()> unblocked;
  bool waiting = false;  // the producer was told to pause
  uint64_t use = 1;      // counts the source's resets
};

template <typename T>
void DataSinkImpl<T>::notify() {
  if (notifying_) {
    again_ = true;
    return;
  }
  if (inTake_ || !ready_) return;
  notifying_ = true;
  struct Reset {
    bool& flag;
    ~Reset() { flag = false; }
  } reset{notifying_};
  do {
    again_ = false;
    Delegate<void()> handler = ready_;
    handler();
  } while (again_);
}

template <typename T>
T DataSinkImpl<T>::take() {
  T item = std::move(items_.front());
  items_.pop_front();
  if (!isFull()) {
    std::shared_ptr<SourceLink> link = source_.lock();
    if (link && link->use == sourceUse_ && link->waiting) {
      link->waiting = false;
      if (link->unblocked) {
        inTake_ = true;
        struct Reset {
          bool& flag;
          ~Reset() { flag = false; }
        } reset{inTake_};
        Delegate<void()> handler = link->unblocked;
        handler();
      }
    }
  }
  return item;
}

template <typename T>
void DataSourceImpl<T>::connect(const std::weak_ptr<DataSinkImpl<T>>& handle) {
  std::shared_ptr<DataSinkImpl<T>> sink = handle.lock();
  if (!sink) throw BadCallError("Can't connect expired handle");
  sink_ = handle;
  connected_ = true;
  sink->source_ = link_;
  sink->sourceUse_ = link_->use;
  while (!pending_.empty()) {
    T item = std::move(pending_.front());
    pending_.pop_front();
    sink->put(item);
  }
  if (ended_) sink->end();
  if (link_->waiting && !sink->isFull()) {
    link_->waiting = false;
    Delegate<void()> handler = link_->unblocked;
    if (handler) handler();
  }
}

template <typename T>
void DataSourceImpl<T>::discard() {
  sink_.reset();
  connected_ = true;
  pending_.clear();
  if (link_->waiting) {
    link_->waiting = false;
    Delegate<void()> handler = link_->unblocked;
    if (handler) handler();
  }
}

template <typename T>
bool DataSourceImpl<T>::put(const T& item) {
  if (!connected_) {
    pending_.push_back(item);
    link_->waiting = true;
    return false;
  }
  // Held for the call: the consumer may drop its own reference in its handler.
  std::shared_ptr<DataSinkImpl<T>> sink = sink_.lock();
  if (!sink) return true;
  sink->put(item);
  if (sink->isFull()) {
    link_->waiting = true;
    return false;
  }
  return true;
}

template <typename T>
void DataSourceImpl<T>::end() {
  if (ended_) return;
  ended_ = true;
  if (std::shared_ptr<DataSinkImpl<T>> sink = sink_.lock()) sink->end();
}

template <typename T>
bool DataSourceImpl<T>::isBlocked() const {
  if (!connected_) return !pending_.empty();
  std::shared_ptr<DataSinkImpl<T>> sink = sink_.lock();
  return sink && sink->isFull();
}

template <typename T>
DataHandler<T> feedSink(const std::weak_ptr<DataSinkImpl<T>>& handle) {
  if (handle.expired()) throw BadCallError("Can't connect expired handle");
  return [handle](const T& item, bool end) {
    std::shared_ptr<DataSinkImpl<T>> sink = handle.lock();
    if (!sink) return;
    if (end) {
      sink->end();
    } else {
      sink->put(item);
    }
  };
}

}  // namespace quorvel
