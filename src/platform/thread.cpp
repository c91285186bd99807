#include "platform/thread.h"

#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "platform/process_services.h"
#include "platform/signal_stack.h"

namespace platform {

namespace {

struct DetachedWork {
  std::string threadName;
  std::function<void()> body;
};

void* enterDetached(void* handedOver) {
  const std::unique_ptr<DetachedWork> work(static_cast<DetachedWork*>(handedOver));
  const SignalStack signalStack;
  pthread_name_np(gettid(), work->threadName.c_str());
  work->body();
  return nullptr;
}

}  // namespace

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

int startDetached(const char* name, std::function<void()> body) {
  std::unique_ptr<DetachedWork> work;
  try {
    work = std::make_unique<DetachedWork>(DetachedWork{name, std::move(body)});
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
  pthread_t thread{};
  if (const int error = pthread_create(&thread, nullptr, enterDetached, work.get())) return -error;
  // The thread owns it from here on.
  static_cast<void>(work.release());
  pthread_detach(thread);
  return 0;
}

}  // namespace platform
