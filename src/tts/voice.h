#pragma once

#include <atomic>
#include <deque>
#include <functional>

#include "platform/condition.h"
#include "platform/mutex.h"

namespace qs_ns {

/// Does somebody wait to hear it?
enum class Urgency { background, speech };

/// The right to call Flite: one thread at a time, speech first, else in the order in which they
/// came. While a text is being spoken (`beginSpeech`), no background work gets the voice, and what
/// has it is to give it back at its next chunk.
///
/// So speech waits for the chunk of one other holder. Up to its first chunk a holder cannot be
/// interrupted: some 40 % of the synthesis of one piece, 50 ms for the heaviest prose, 300 for a
/// token of 200 letters that are spelled. A waiter lends the holder nothing: where another
/// thread wants the processor, a holder of nice 6 gets a fifth of it, which makes five times that
/// at worst. A mutex lends no nice level either.
///
/// Background work does not starve: speech takes far longer to play than to synthesise, no more
/// than some seconds of it are made ahead, and while it plays nobody asks for the voice. A piece
/// that was given up too often is made to its end (`qs_flite_tts_file`).
///
/// Any thread; each has the voice once at most. Only `take` and `lock` block. Its own lock is the
/// innermost: nothing is called under it.
class CAPABILITY("mutex") Voice {
 public:
  Voice() = default;
  Voice(const Voice&) = delete;
  Voice& operator=(const Voice&) = delete;

  /// Blocks until the voice is the caller's (true), or until `givenUp`, which is asked without any
  /// lock when there is a wait and after each `wake`, says yes (false).
  bool take(Urgency urgency, const std::function<bool()>& givenUp) TRY_ACQUIRE(true);
  /// As `take` for background work that nobody gives up.
  void lock() ACQUIRE();
  void unlock() RELEASE();

  /// For whoever makes a `givenUp` true: lets those who wait ask it again.
  void wake();

  /// Around a text that is being spoken, but for where it waits for something else than the voice.
  /// They may be nested among threads.
  void beginSpeech();
  void endSpeech();
  /// Is a text being spoken, so that background work is to give way?
  bool isWantedBySpeech() const { return speeches != 0; }

 private:
  struct Waiter {
    Urgency urgency;
  };

  void enter(const Waiter& waiter) REQUIRES(mutex);
  void leave(const Waiter& waiter) REQUIRES(mutex);
  bool isTurnOf(const Waiter& waiter) const REQUIRES(mutex);

  platform::Mutex mutex{true};
  platform::Condition changed;
  bool held GUARDED_BY(mutex) = false;
  /// Speech before background work.
  std::deque<const Waiter*> line GUARDED_BY(mutex);
  unsigned wakes GUARDED_BY(mutex) = 0;
  /// Written under the lock, read by the holder of the voice at every chunk.
  std::atomic<int> speeches{0};
};

/// Gives back the voice, which its maker has taken, at the end of a scope.
class SCOPED_CAPABILITY VoiceHold {
 public:
  explicit VoiceHold(Voice& taken) REQUIRES(taken) : voice(taken) {}
  ~VoiceHold() RELEASE() { voice.unlock(); }
  VoiceHold(const VoiceHold&) = delete;
  VoiceHold& operator=(const VoiceHold&) = delete;

 private:
  Voice& voice;
};

/// Held around every Flite call and the voice features that belong to it: one synthesis at a time
/// in the whole process. A text of several pieces gives it back between them.
extern Voice voiceMutex;

}  // namespace qs_ns
