#pragma once

#include <functional>

#include "support/gate.h"

namespace test {

// The linker leads the program's calls of pthread_create, pthread_mutex_lock, pthread_cond_wait and
// delete_wave through here.

/// How many threads the program has started that have not ended, and the most there ever were at
/// once since the last call of `resetThreadPeak`.
int liveThreads();
int threadPeak();
void resetThreadPeak();
/// The argument that the calling thread was started with; null on the main thread.
const void* threadArgument();
/// Lets the `creation`-th thread from here (1 is the next) fail with EAGAIN.
void failThread(int creation);

/// Calls `action` on the thread that is the next to lock `mutex`, just before it has it.
void beforeNextLock(const void* mutex, std::function<void()> action);

/// The mutex that the calling thread locked last.
const void* lastLocked();

/// How often a thread has begun to wait on a condition without a deadline. It is counted with the
/// mutex held that goes with the condition, so whoever has that next finds the thread waiting.
Tally& waitsBegun();

/// Waves deleted so far.
int deletedWaves();

}  // namespace test
