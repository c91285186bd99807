#include "cache/builder_line.h"

#include <syslog.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <utility>

namespace qs_ns {

namespace {
// Below the play queue and the writer, which must not wait for a processor while phrases are built.
constexpr int kBuilderNiceLevel = 6;
}  // namespace

BuilderLine::~BuilderLine() {
  assert(running == nullptr && "the owner joins the builders");
}

int BuilderLine::start(const std::shared_ptr<platform::Thread>& builder) {
  std::shared_ptr<platform::Thread> dropped;
  const platform::MutexLock lock(mutex);
  if (closed) return -ECANCELED;
  if (successor != nullptr) {
    dropped = std::exchange(replacement, builder);
    return 0;
  }
  std::shared_ptr<platform::Thread>& place = running == nullptr ? running : successor;
  place = builder;
  return launch(place);
}

int BuilderLine::launch(std::shared_ptr<platform::Thread>& place) {
  const int status = place->run("QS_CacheThread", kBuilderNiceLevel, 0);
  if (status != 0) {
    syslog(LOG_ERR, "QS_CT:%s: no thread for the phrase cache: %s", "runThread",
           std::strerror(-status));
    place.reset();
  }
  return status;
}

void BuilderLine::takeTurn(const platform::Thread& builder) {
  std::shared_ptr<platform::Thread> predecessor;
  {
    const platform::MutexLock lock(mutex);
    if (successor.get() != &builder) return;
    predecessor = running;
  }
  predecessor->join();
  std::shared_ptr<platform::Thread> next;  // outlives the lock, should it not start
  const platform::MutexLock lock(mutex);
  running = std::move(successor);
  next = std::exchange(replacement, nullptr);
  successor = next;
  if (successor != nullptr) launch(successor);
}

std::shared_ptr<platform::Thread> BuilderLine::lastStarted() {
  const platform::MutexLock lock(mutex);
  return successor != nullptr ? successor : running;
}

void BuilderLine::joinAll() {
  std::shared_ptr<platform::Thread> dropped;
  {
    const platform::MutexLock lock(mutex);
    closed = true;
    dropped = std::move(replacement);
  }
  // The successor first: it joins the one before it itself, and two may not.
  while (const std::shared_ptr<platform::Thread> last = lastStarted()) {
    last->join();
    const platform::MutexLock lock(mutex);
    assert(running == last && "a builder takes its turn before it ends");
    running.reset();
  }
}

}  // namespace qs_ns
