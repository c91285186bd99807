#pragma once

#include <functional>

namespace test {

// The linker leads the program's calls of pthread_create, pthread_mutex_lock and delete_wave
// through here.

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

/// Waves deleted so far.
int deletedWaves();

}  // namespace test
