#pragma once

#include <functional>

#include "support/gate.h"

namespace test {

// The linker leads the program's calls of pthread_create, pthread_mutex_lock and
// pthread_cond_wait through here.

/// How many threads the program has started that have not ended.
int liveThreads();
/// Lets the `creation`-th thread from here (1 is the next) fail with EAGAIN.
void failThread(int creation);
/// Lets the starts of threads from here return only once the thread has ended, or no more so.
void awaitEndOfThreads(bool awaited);

/// Calls `action` on the thread that is the next to lock `mutex`, just before it has it.
void beforeNextLock(const void* mutex, std::function<void()> action);

/// The mutex that the calling thread locked last, and how often it has locked any.
const void* lastLocked();
int locksTaken();

/// How often a thread has begun to wait on a condition without a deadline. It is counted with the
/// mutex held that goes with the condition, so whoever has that next finds the thread waiting.
Tally& waitsBegun();

}  // namespace test
