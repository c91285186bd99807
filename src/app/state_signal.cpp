#include "app/state_signal.h"

#include <poll.h>
#include <syslog.h>

#include <exception>

namespace qs_ns {

StateSignal::StateSignal(CheckingBusDispatcher& loop, QuillspeakDBusImpl& announcing)
    : dispatcher(loop), service(announcing), wakeUp(file.descriptor(), POLLIN, &loop) {
  dispatcher.atEachTurn([this] { look(); });
}

StateSignal::~StateSignal() {
  dispatcher.atEachTurn(nullptr);
}

// What could not be announced is tried again at the next look.
void StateSignal::look() {
  if (!file.mayHaveChanged()) return;
  try {
    service.announceState();
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "StateSignal: not announced: %s", error.what());
  }
}

}  // namespace qs_ns
