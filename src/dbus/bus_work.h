#pragma once

#include <functional>
#include <vector>

#include "platform/mutex.h"

namespace qs_ns {

/// What other threads want done on the bus: the library's objects bear one thread only, so signals,
/// late replies and the end of the loop are posted here and run by the thread that owns the bus
/// loop. One list for each service cycle; what was not run when it dies is dropped.
class BusWork {
 public:
  enum class Kind { signal, reply, leave };
  using Work = std::function<void()>;

  /// Throws std::system_error where no descriptor can be had.
  BusWork();
  ~BusWork();
  BusWork(const BusWork&) = delete;
  BusWork& operator=(const BusWork&) = delete;

  /// Readable while anything waits, and until the next `run`; for the loop to poll.
  int descriptor() const { return eventDescriptor; }

  /// Adds work for the bus thread and wakes it. Any thread; never blocks; may be called with a lock
  /// held. What `work` refers to must live until it has run or the list is gone.
  void post(Kind kind, Work work);

  /// Runs all that was posted so far, in order. Bus thread.
  void run();
  /// Runs the signals among it, in order, and leaves the rest. Bus thread.
  void runSignals();

 private:
  struct Item {
    Kind kind;
    Work work;
  };

  static void runItems(const std::vector<Item>& due);

  const int eventDescriptor;
  platform::Mutex mutex{true};
  std::vector<Item> items GUARDED_BY(mutex);
};

}  // namespace qs_ns
