#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <functional>

#include "platform/mutex.h"

namespace platform {

/// A worker thread: derive from it, override `threadLoop`, start it with `run`.
///
/// Ended in two steps: `requestExit` asks and never blocks, `join` waits for the loop to end. The
/// owner of the most derived object joins before it destroys it, since a base class that joined
/// would do so when the derived members are gone; a destructor that finds it not done ends the
/// process by abort, since going on would run the loop on a dead object.
class Thread {
 public:
  Thread() = default;
  virtual ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  /// Starts the loop on a new thread. `name` (15 bytes of it are kept) is copied; `nice` is a nice
  /// level for this thread alone (0: its creator's) and `stackBytes` its stack, 0 standing for the
  /// default of either. Returns 0, or the negative errno value where no thread could be had; then
  /// nothing runs. Once per object. The loop may be under way, and another thread in `join`, before
  /// this returns.
  int run(const char* name, int nice, std::size_t stackBytes);

  /// Asks the loop to end after the pass under way (before `run`: after the first). Any thread, the
  /// loop's own included.
  void requestExit();

  /// Waits until the loop has ended. One caller at a time, never the loop's own thread. Returns at
  /// once where nothing was started or it was joined before.
  void join();

  bool exitRequested() const { return exitWanted.load(); }

 protected:
  /// One pass of the work, on the new thread: true to be called again, false to end.
  virtual bool threadLoop() = 0;

 private:
  static void* enter(void* self);
  void settle() const;

  // Constant once the loop begins.
  int niceLevel = 0;
  char threadName[16] = {};

  std::atomic<bool> exitWanted{false};

  Mutex startLock{true};
  bool joinable GUARDED_BY(startLock) = false;
  pthread_t handle GUARDED_BY(startLock){};
};

/// Runs `body` once, on a thread that nobody joins: for work that outlives its owner or may hang in
/// a driver. `name` as above. Returns 0, or the negative errno value where no thread could be had.
int startDetached(const char* name, std::function<void()> body);

}  // namespace platform
