#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <dbus-c++/dbus.h>

#include "platform/condition.h"
#include "platform/mutex.h"
#include "platform/thread.h"

namespace qs_ns {

class QS_ConvertTTSThread;

/// What a conversion hands to its callback; valid during the call.
struct FliteConversionResponse {
  /// Of the bus call that waits for the answer.
  DBus::Tag* tag;
  /// 0 done, -2 no wave.
  std::int32_t result;
  /// Was the conversion asked to end before it was done? Then `result` says nothing.
  bool stopped;
};

/// Shared by the service object and all conversions. The library's own slots count their holders
/// without regard to threads, hence another kind of pointer.
using ConversionCallback =
    std::shared_ptr<const DBus::Callback_Base<void, FliteConversionResponse&>>;

/// Lets conversions synthesise one at a time, in the order in which they were asked for.
class ConversionLine {
 public:
  /// Bus thread.
  void enter(const QS_ConvertTTSThread* conversion);
  /// Blocks for `duration`, or until the conversion is asked to end.
  void pause(const QS_ConvertTTSThread* conversion, std::chrono::nanoseconds duration);
  /// Blocks until it is the conversion's turn (true) or it is asked to end (false).
  bool waitForTurn(const QS_ConvertTTSThread* conversion);
  void leave(const QS_ConvertTTSThread* conversion);
  /// Makes those who wait see that they were asked to end.
  void wake();

 private:
  platform::Mutex mutex{true};
  platform::Condition moved;
  std::deque<const QS_ConvertTTSThread*> line GUARDED_BY(mutex);
};

/// Converts one text into a file on a thread of its own and reports through the callback. Made,
/// started, joined and destroyed by the service object on the bus thread.
class QS_ConvertTTSThread final : public platform::Thread {
 public:
  /// `tag` is only passed on; `order` and what `callback` is bound to outlive the thread.
  QS_ConvertTTSThread(DBus::Tag* tag, std::string toConvert, std::string filePath,
                      ConversionCallback callback, ConversionLine& order);
  ~QS_ConvertTTSThread() override;

  /// 0, or a negative status where no thread could be had.
  int start() { return run("QS_ConvertTTSThread", 6, 0); }

  /// Asks the conversion to end: at once while it waits, at its next chunk while it synthesises. It
  /// reports all the same. Any thread; never blocks.
  void stop();
  bool isStopped() const { return stopped; }
  /// Has its thread nothing left to do, so that a join does not wait?
  bool hasEnded() const { return ended; }

 protected:
  bool threadLoop() override;

 private:
  DBus::Tag* const callTag;
  const std::string text;
  const std::string path;
  ConversionCallback finished;
  ConversionLine& turns;
  std::atomic<bool> stopped{false};
  std::atomic<bool> ended{false};
};

}  // namespace qs_ns
