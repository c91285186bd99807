#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include <flite/flite.h>

#include "tts/voice.h"
#include "tts/wave.h"

namespace qs_ns {

/// What travels with one synthesis through the engine and its callbacks. Lives on the stack of the
/// thread that calls the engine.
struct QS_StreamUserData {
  /// Whom the samples are for; each callback knows its kind.
  void* owner = nullptr;
  /// Speed level asked for, 1 (slow) to 5 (fast). 0 asks for the configured one, with the fast
  /// voice for 2; whatever is out of range stands for 3.
  std::int32_t speed = 0;
  /// 0 the configured voice, 1 the fast one.
  std::int32_t voice = 0;
  /// Asked before the first and between the pieces of a text, with no lock held; may block. A
  /// non-zero result ends the text with an empty wave. May be null.
  int (*beforePiece)(QS_StreamUserData& userData) = nullptr;
  /// Asked with `voiceMutex` held, just before Flite is called, and while that is waited for, at
  /// first and after each `voiceMutex.wake()`; must not block. True gives the voice or the wait for
  /// it up at once and ends the text with an empty wave. May be null.
  bool (*abandoned)(const QS_StreamUserData& userData) = nullptr;
  /// Does nobody wait to hear it? Then speech goes first.
  bool background = false;
  /// Asked before `beforePiece`: is that going to wait? Background work may have the voice in that
  /// time, and no other between the pieces. Must not block. May be null: it does not wait.
  bool (*waitsBeforePiece)(const QS_StreamUserData& userData) = nullptr;
};

/// The engine's chunk callback, as Flite defines it: the wave under construction, the index of the
/// first new sample in it, how many are new, non-zero on the last call for the text, and the record
/// whose `userdata` is the caller's `QS_StreamUserData`. Samples beyond the new ones are not there
/// yet, and the wave's `num_samples` may count up to 80 too many. Runs on the caller's thread with
/// `voiceMutex` held and must not call the engine. 0 goes on, -1 abandons the text.
using StreamCallback = int (*)(const cst_wave* wave, int start, int size, int last,
                               cst_audio_streaming_info* info);

/// Initialises Flite, registers the voice and loads the lexicon addenda. Takes `voiceMutex` as
/// background work does. Main thread, once for each cycle of the service. What fails is logged;
/// without a voice nothing is synthesised from then on.
void qs_flite_init();

/// Chooses the voice for a request: 0 the one that the property names, or, once a file was
/// synthesised, the one of that file; 1 the fast one, which falls back to the property's. Null only
/// where none could be registered. Any thread; reads the property store.
cst_voice* qs_fetch_voice(int requestedVoice);

/// The speed level, 1 to 5, for a request; null asks for the configured one. Any thread; reads the
/// property store.
int qs_fetch_speed(const QS_StreamUserData* userData);

// Both ways of synthesis pass the text through `guardText`, and may speak it in pieces, each with
// its own hold of the voice: into a file one that is heavier than an utterance may be
// (`cutIntoPieces`), as a stream every sentence (`cutForSpeech`).

/// Synthesises `text` into a RIFF WAVE file at `path`, which `openOutputFile` opens (empty: none is
/// written). Blocks for the whole synthesis; any thread.
/// Gives way to speech: the piece under way when a text is to be spoken is given up at its next
/// chunk and made anew afterwards. `stop`, where given, ends it at the next chunk, or its wait for
/// the voice, where whoever sets it calls `voiceMutex.wake()` afterwards: nothing is written then
/// and the result is -2. It comes too late once the file is begun. `reserved` is not used. 0 done,
/// also where the file could not be written (which is logged) or there is no voice; -2 where Flite
/// produced no wave.
int qs_flite_tts_file(const std::string& text, const std::string& path, int reserved,
                      const std::atomic<bool>* stop = nullptr);

/// Synthesises `text` (not null) and hands its samples to `callback` (may be null) as they are
/// produced; blocks until all are, for the voice while another text has it, and in the hooks. Any
/// thread. A text of several pieces reaches the callback as one growing wave, with shortened
/// pauses. Returns the whole wave where `wantWave`, with 0 samples where the text was ended by a
/// hook or by the callback (but for its last call, after which nothing is left to end); null
/// without `wantWave`, without a voice, or where Flite failed.
Wave qs_flite_tts_stream(const char* text, StreamCallback callback, QS_StreamUserData* userData,
                         bool wantWave);

}  // namespace qs_ns
