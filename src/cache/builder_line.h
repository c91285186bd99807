#pragma once

#include <memory>

#include "platform/mutex.h"
#include "platform/thread.h"

namespace qs_ns {

/// The line in which one controller's cache builders take turns: a new one does nothing before the
/// old one's thread has ended, nobody on the bus thread ever waits for that, and however fast
/// builders are replaced, at most two of them are threads.
///
/// What holds whenever `mutex` is free:
///  - `running` is the one that builds or is ending, and stays until it is joined, also when its
///    list is long done. Without it there is neither a successor nor a replacement.
///  - `successor` is a started thread that joins `running` before its first step. It is the only
///    one that does so, and then becomes `running` itself.
///  - `replacement` is no thread yet; it waits for `successor` to have had its turn, which is then
///    short, since a builder is stopped before the next one is started.
///  - Every started builder is held here until it is joined, and its last pointer here is dropped
///    by its successor's thread or by `joinAll`, with `mutex` free: so it dies neither with its
///    thread still running nor on it, and its destructor may call the controller.
class BuilderLine {
 public:
  BuilderLine() = default;
  ~BuilderLine();
  BuilderLine(const BuilderLine&) = delete;
  BuilderLine& operator=(const BuilderLine&) = delete;

  /// Starts the builder's thread, or puts it in the place where it is started later; never waits
  /// for another builder. A builder that waited in that place is dropped. 0, or the negative errno
  /// value where there is no thread for it, which is logged; it is then out of the line.
  /// After `joinAll` nothing is started, and the value is -ECANCELED.
  /// PRECONDITION: the builder started before it is stopped and still held by the caller, who drops
  /// it with no lock held.
  int start(const std::shared_ptr<platform::Thread>& builder);

  /// On the builder's own thread, with no lock held: returns when the one before it has ended.
  void takeTurn(const platform::Thread& builder);

  /// Waits until no builder is a thread any more; nothing is started from here on. With no lock
  /// held. PRECONDITION: all builders are stopped.
  void joinAll();

 private:
  /// Starts what is in `place`, and empties it where that fails.
  int launch(std::shared_ptr<platform::Thread>& place) REQUIRES(mutex);
  std::shared_ptr<platform::Thread> lastStarted();

  platform::Mutex mutex{true};
  /// Has `joinAll` been called?
  bool closed GUARDED_BY(mutex) = false;
  std::shared_ptr<platform::Thread> running GUARDED_BY(mutex);
  std::shared_ptr<platform::Thread> successor GUARDED_BY(mutex);
  std::shared_ptr<platform::Thread> replacement GUARDED_BY(mutex);
};

}  // namespace qs_ns
