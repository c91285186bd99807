#pragma once

#include <memory>
#include <string>

#include "platform/audio/output.h"
#include "platform/condition.h"
#include "platform/mutex.h"

namespace platform::audio {

/// The one line to an output. One stream at a time has it, speech or a tone; a second is refused.
/// Any thread may call; the lock is never held while the output is called, but to ask it to drop
/// what waits. A stream whose output
/// failed is dead: its writes fail at once until it is closed.
class Line {
 public:
  /// `outputName` is what the log calls the output.
  Line(std::string outputName, std::unique_ptr<Output> lineOutput);

  /// Begins a stream: its handle, never 0 and never given out twice, or a negative status, -EBUSY
  /// while another stream has the line. Logs why an output does not open, once for each reason.
  int open();
  /// Plays `frames` samples, as long as that takes. 0, or a negative status.
  int write(int handle, const std::int16_t* samples, std::size_t frames);
  /// Ends the stream when all of it was heard. A write under way on another thread ends early.
  int close(int handle);
  /// Lets the stream be silent at once, as `Output::drop` says. Never blocks, so callers may hold
  /// locks. 0, or -EBADF.
  int drop(int handle);
  /// Ends whatever stream there is.
  void closeAny();

 private:
  int beginCall(int handle);
  void endCall(int result);
  int finishOpen(int result, const std::string& why);
  int nextHandle() REQUIRES(mutex);
  void reportOpen(int result, const std::string& why) REQUIRES(mutex);

  const std::string name;
  const std::unique_ptr<Output> output;  // called by the thread that set `calling`

  Mutex mutex{true};
  Condition callEnded;
  bool calling GUARDED_BY(mutex) = false;  // is a thread inside the output?
  bool taken GUARDED_BY(mutex) = false;    // from the begin of an open to the end of its close
  int current GUARDED_BY(mutex) = 0;       // the stream's handle, 0: none, or it is being closed
  int lastHandle GUARDED_BY(mutex) = 0;
  int status GUARDED_BY(mutex) = 0;  // of a dead stream, negative
  std::string reported GUARDED_BY(mutex);
};

}  // namespace platform::audio
