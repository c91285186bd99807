#include "watch.h"

#include <iostream>
#include <nlohmann/json.hpp>

#include "bus.h"
#include "failure.h"

namespace qs_client {

namespace {

void print(const PlayResult& one, bool json) {
  const char* const result = one.code == 0 ? "played" : "stopped";
  if (json) {
    const nlohmann::json object{{"handle", one.handle}, {"result", result}, {"texts", one.texts},
                                {"params", one.params}, {"type", one.type}, {"flags", one.flags}};
    std::cout << object << std::endl;
    return;
  }
  std::cout << one.handle << ' ' << result;
  for (const std::string& text : one.texts)
    std::cout << ' ' << nlohmann::json(text);
  std::cout << std::endl;
}

}  // namespace

int watch(bool json) {
  Bus bus;
  bus.holdSignals();
  bus.onResult = [json](const PlayResult& one) { print(one, json); };
  if (bus.owner().empty()) throw Failure(kNotRunning);
  // Nobody reads on where the output fails.
  const Bus::End end = bus.waitFor([] { return std::cout.fail(); });
  if (end == Bus::End::daemonGone || end == Bus::End::busLost) throw Failure(explain(end));
  return kOk;
}

}  // namespace qs_client
