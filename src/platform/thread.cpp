#include "platform/thread.h"

#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/process_services.h"
#include "platform/signal_stack.h"

namespace platform {

Thread::~Thread() {
  const MutexLock lock(startLock);
  if (!joinable) return;
  syslog(LOG_CRIT, "%s: destroyed before it was joined", threadName);
  std::abort();
}

int Thread::run(const char* name, int nice, std::size_t stackBytes) {
  const MutexLock lock(startLock);
  if (joinable) return -EBUSY;
  niceLevel = nice;
  std::strncpy(threadName, name, sizeof threadName - 1);

  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return -error;
  if (stackBytes != 0) error = pthread_attr_setstacksize(&attributes, stackBytes);
  if (error == 0) error = pthread_create(&handle, &attributes, enter, this);
  pthread_attr_destroy(&attributes);
  joinable = error == 0;
  return -error;
}

void Thread::requestExit() {
  exitWanted = true;
}

void Thread::join() {
  pthread_t started{};
  {
    const MutexLock lock(startLock);
    if (!joinable) return;
    started = handle;
  }
  // Never the loop's own thread: it would wait for itself.
  if (pthread_join(started, nullptr) != 0) std::abort();
  const MutexLock lock(startLock);
  joinable = false;
}

void* Thread::enter(void* self) {
  auto& thread = *static_cast<Thread*>(self);
  const SignalStack signalStack;
  thread.settle();
  while (thread.threadLoop() && !thread.exitRequested()) {
  }
  return nullptr;
}

void Thread::settle() const {
  const pid_t id = gettid();
  pthread_name_np(id, threadName);
  // On Linux a nice level belongs to the thread.
  if (niceLevel != 0 && setpriority(PRIO_PROCESS, static_cast<id_t>(id), niceLevel) != 0) {
    syslog(LOG_WARNING, "%s: nice level %d refused: %s", threadName, niceLevel,
           std::strerror(errno));
  }
}

}  // namespace platform
