#include "platform/mutex.h"

#include <cstdlib>

namespace platform {

namespace {
// A failed lock operation is a program gone wrong (locked twice, unlocked by a stranger);
// going on without the lock would be worse than a stack trace.
void check(int error) {
  if (error != 0) std::abort();
}
}  // namespace

Mutex::Mutex(bool inheritPriority) {
  pthread_mutexattr_t attributes;
  check(pthread_mutexattr_init(&attributes));
  // Without it, locking twice waits for ever and says nothing.
  check(pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK));
  if (inheritPriority) check(pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT));
  check(pthread_mutex_init(&handle, &attributes));
  pthread_mutexattr_destroy(&attributes);
}

Mutex::~Mutex() {
  pthread_mutex_destroy(&handle);
}

void Mutex::lock() {
  check(pthread_mutex_lock(&handle));
}

void Mutex::unlock() {
  check(pthread_mutex_unlock(&handle));
}

}  // namespace platform
