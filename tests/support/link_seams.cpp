#include "support/link_seams.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <utility>

namespace {

std::atomic<int> live{0};
std::atomic<int> creationsUntilFailure{0};
std::atomic<bool> endsAwaited{false};
thread_local const void* lockedLast = nullptr;
thread_local int locks = 0;

// Written before the lock that it waits for, on that lock's thread or before that thread starts.
std::atomic<const void*> awaitedMutex{nullptr};
std::function<void()> awaitedAction;

struct Start {
  void* (*function)(void*);
  void* argument;
  std::shared_ptr<test::Gate> end;
};

void* enter(void* given) {
  const std::unique_ptr<Start> start(static_cast<Start*>(given));
  void* const result = start->function(start->argument);
  --live;
  start->end->open();
  return result;
}

}  // namespace

namespace test {

int liveThreads() {
  return live;
}
void failThread(int creation) {
  creationsUntilFailure = creation;
}
void awaitEndOfThreads(bool awaited) {
  endsAwaited = awaited;
}
void beforeNextLock(const void* mutex, std::function<void()> action) {
  awaitedAction = std::move(action);
  awaitedMutex = mutex;
}
const void* lastLocked() {
  return lockedLast;
}
int locksTaken() {
  return locks;
}
Tally& waitsBegun() {
  static Tally tally;
  return tally;
}

}  // namespace test

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's own names for a wrapped function.
extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_mutex_lock(pthread_mutex_t*);
int __real_pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*function)(void*), void* argument) {
  if (creationsUntilFailure > 0 && --creationsUntilFailure == 0) return EAGAIN;
  const auto end = std::make_shared<test::Gate>();
  auto start = std::make_unique<Start>(Start{function, argument, end});
  ++live;
  const int error = __real_pthread_create(thread, attributes, enter, start.get());
  if (error == 0) {
    static_cast<void>(start.release());  // the thread owns it
    if (endsAwaited) end->pass();
  } else {
    --live;
  }
  return error;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  const void* expected = mutex;
  if (awaitedMutex.compare_exchange_strong(expected, nullptr)) {
    std::exchange(awaitedAction, nullptr)();
  }
  lockedLast = mutex;
  ++locks;
  return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  test::waitsBegun().add();
  return __real_pthread_cond_wait(condition, mutex);
}
}
// NOLINTEND(bugprone-reserved-identifier)
