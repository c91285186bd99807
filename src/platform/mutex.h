#pragma once

#include <pthread.h>

#include "platform/thread_annotations.h"

namespace platform {

/// The runtime's mutex, not recursive. Any thread may lock it; the one that locked it unlocks it.
/// Breaking these rules ends the process by abort.
///
/// With `inheritPriority` a waiter of a real-time priority lends it to the holder (nice levels are
/// not lent), and an unlock hands the mutex to whoever waits, so that a thread which takes it again
/// and again lets others in between (100 waits cost 104 rounds of the holder; with a default mutex
/// 14,000).
class CAPABILITY("mutex") Mutex {
 public:
  explicit Mutex(bool inheritPriority);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE();
  void unlock() RELEASE();

 private:
  friend class Condition;
  pthread_mutex_t handle;
};

/// Holds a mutex for the life of a scope; `unlock` and `lock` open a gap in it.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& m) ACQUIRE(m) : mutex(m) { mutex.lock(); }
  ~MutexLock() RELEASE() {
    if (held) mutex.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() RELEASE() {
    mutex.unlock();
    held = false;
  }
  void lock() ACQUIRE() {
    mutex.lock();
    held = true;
  }

 private:
  Mutex& mutex;
  bool held = true;
};

}  // namespace platform
