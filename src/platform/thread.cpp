#include "platform/thread.h"

#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "platform/process_services.h"

namespace platform {

Thread::~Thread() {
  assert(!joinable.load() && "the owner joins before it destroys");
}

int Thread::run(const char* name, int nice, std::size_t stackBytes) {
  assert(!joinable.load());
  niceLevel = nice;
  std::strncpy(threadName, name, sizeof threadName - 1);

  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return -error;
  if (stackBytes != 0) error = pthread_attr_setstacksize(&attributes, stackBytes);
  if (error == 0) error = pthread_create(&handle, &attributes, enter, this);
  pthread_attr_destroy(&attributes);
  if (error == 0) joinable = true;
  return -error;
}

void Thread::requestExit() {
  exitWanted = true;
}

void Thread::join() {
  if (!joinable.load()) return;
  pthread_join(handle, nullptr);
  joinable = false;
}

void* Thread::enter(void* self) {
  auto& thread = *static_cast<Thread*>(self);
  const pid_t id = gettid();
  pthread_name_np(id, thread.threadName);
  // On Linux a nice level belongs to the thread.
  if (thread.niceLevel != 0 &&
      setpriority(PRIO_PROCESS, static_cast<id_t>(id), thread.niceLevel) != 0) {
    syslog(LOG_WARNING, "%s: nice level %d refused: %s", thread.threadName, thread.niceLevel,
           std::strerror(errno));
  }
  while (thread.threadLoop() && !thread.exitRequested()) {
  }
  return nullptr;
}

}  // namespace platform
