#include "watch.h"

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "bus.h"
#include "failure.h"

namespace qs_client {

namespace {

// Texts come from anybody, and the JSON library leaves the controls behind ASCII as they are, which
// some terminals obey.
std::string escaped(const nlohmann::json& value) {
  std::string text = value.dump();
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const auto next = static_cast<unsigned char>(at + 1 < text.size() ? text[at + 1] : 0);
    const bool isLong = byte == 0xC2 && next < 0xA0;
    if (!isLong && byte != 0x7F) continue;
    char code[8];
    std::snprintf(code, sizeof code, "\\u%04x", isLong ? next : byte);
    text.replace(at, isLong ? 2 : 1, code);
  }
  return text;
}

void print(const PlayResult& one, bool json) {
  const char* const result = one.code == 0 ? "played" : "stopped";
  if (json) {
    const nlohmann::json object{{"handle", one.handle}, {"result", result}, {"texts", one.texts},
                                {"params", one.params}, {"type", one.type}, {"flags", one.flags}};
    std::cout << escaped(object) << std::endl;
    return;
  }
  std::cout << one.handle << ' ' << result;
  for (const std::string& text : one.texts)
    std::cout << ' ' << escaped(text);
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
