#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <list>
#include <utility>

#include "platform/clock.h"
#include "platform/condition.h"
#include "platform/mutex.h"

namespace qs_ns {

/// How a timed take ended. Told under the queue's lock, so "exhausted" means that nothing is left.
enum class TakeResult { item, timedOut, exhausted };

/// First in, first out between threads. `T` is an owning pointer; an empty one means nothing. Items
/// still queued when the queue dies die with it. Every operation takes the queue's own lock, under
/// which nothing is called but the clock and a caller's `matches`, which take none of the daemon's;
/// so callers may hold theirs.
///
/// An item may carry a load (samples, say), for the queue never looks at the item itself.
template <typename T>
class wqueue {
 public:
  static constexpr std::chrono::milliseconds kTimedTake{10};

  /// Appends an item and wakes one taker.
  void add(T item, std::int64_t load = 0) {
    const platform::MutexLock hold(lock);
    items.push_back({std::move(item), load});
    queuedLoad += load;
    ready.notifyOne();
  }

  /// Takes the oldest item; blocks while the queue is empty and not exhausted. Nothing where it is
  /// empty and exhausted.
  T remove() {
    const platform::MutexLock hold(lock);
    while (items.empty() && !exhausted)
      ready.wait(lock);
    return takeFront();
  }

  /// Takes the oldest item, waiting once for at most 10 ms; a wait that ends early without an item
  /// counts as timed out.
  TakeResult removeTimed(T& item) {
    const platform::MutexLock hold(lock);
    if (items.empty() && !exhausted) {
      platform::Clock& clock = platform::clock();
      clock.waitUntil(ready, lock, clock.now() + kTimedTake);
    }
    if (items.empty()) return exhausted ? TakeResult::exhausted : TakeResult::timedOut;
    item = takeFront();
    return TakeResult::item;
  }

  /// Blocks until there is an item (true) or the queue is empty and exhausted (false); takes none.
  bool waitForItem() {
    const platform::MutexLock hold(lock);
    while (items.empty() && !exhausted)
      ready.wait(lock);
    return !items.empty();
  }

  /// Takes the newest item, if any; never blocks.
  T removeLast() {
    const platform::MutexLock hold(lock);
    return items.empty() ? T{} : take(std::prev(items.end()));
  }

  /// Takes the newest item where `matches(*item)` holds of it.
  template <typename Matches>
  T removeLastIf(Matches matches) {
    const platform::MutexLock hold(lock);
    if (items.empty() || !matches(*items.back().item)) return T{};
    return take(std::prev(items.end()));
  }

  /// Takes the oldest item, if any; never blocks.
  T tryRemove() {
    const platform::MutexLock hold(lock);
    return takeFront();
  }

  /// Takes the oldest item for which `matches(*item)` holds, if any.
  template <typename Matches>
  T removeFirst(Matches matches) {
    const platform::MutexLock hold(lock);
    for (auto entry = items.begin(); entry != items.end(); ++entry) {
      if (matches(*entry->item)) return take(entry);
    }
    return T{};
  }

  /// Takes that very item; nothing where it is not queued.
  T removeItem(const typename T::element_type* item) {
    return removeFirst([item](const auto& queued) { return &queued == item; });
  }

  int size() const {
    const platform::MutexLock hold(lock);
    return static_cast<int>(items.size());
  }

  /// Says that nothing more will come: takers get what is queued, then nothing.
  void markExhausted() {
    const platform::MutexLock hold(lock);
    exhausted = true;
    ready.notifyAll();
    room.notifyAll();
  }

  /// Blocks while more than `most` of load is queued, the queue is not exhausted and `stopped` is
  /// not set. Whoever sets `stopped` calls `wake` afterwards.
  void waitForRoom(std::int64_t most, const std::atomic<bool>& stopped) {
    const platform::MutexLock hold(lock);
    while (queuedLoad > most && !exhausted && !stopped.load())
      room.wait(lock);
  }

  /// Would `waitForRoom` return without a wait, whatever is stopped?
  bool hasRoom(std::int64_t most) const {
    const platform::MutexLock hold(lock);
    return queuedLoad <= most || exhausted;
  }

  /// Makes `waitForRoom` look at its reasons again.
  void wake() {
    const platform::MutexLock hold(lock);
    room.notifyAll();
  }

 private:
  struct Entry {
    T item;
    std::int64_t load;
  };

  T takeFront() REQUIRES(lock) { return items.empty() ? T{} : take(items.begin()); }

  T take(typename std::list<Entry>::iterator entry) REQUIRES(lock) {
    T item = std::move(entry->item);
    queuedLoad -= entry->load;
    items.erase(entry);
    room.notifyOne();
    return item;
  }

  std::list<Entry> items GUARDED_BY(lock);
  mutable platform::Mutex lock{true};
  platform::Condition ready;
  bool exhausted GUARDED_BY(lock) = false;
  /// Signalled when an item leaves, and by whoever wants `waitForRoom` to end.
  platform::Condition room;
  std::int64_t queuedLoad GUARDED_BY(lock) = 0;
};

}  // namespace qs_ns
