#include "say.h"

#include <algorithm>
#include <iostream>

#include "bus.h"
#include "dbus/limits.h"
#include "failure.h"
#include "playback/play_request.h"
#include "result_wait.h"
#include "tts/utf8.h"

namespace qs_client {

namespace {

using Clock = std::chrono::steady_clock;

// One byte more than any text may have: enough for the daemon to name its limit.
std::string readInput() {
  std::string text(qs_ns::kMaxTextWeight + 1, '\0');
  std::cin.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(std::cin.gcount()));
  while (text.ends_with('\n') || text.ends_with('\r'))
    text.pop_back();
  // What was cut off may have been half a character.
  if (text.size() > qs_ns::kMaxTextWeight) text.assign(text.size(), 'a');
  return text;
}

int waitForResult(Bus& bus, ResultWait& wait, std::uint64_t handle) {
  for (;;) {
    const Bus::End end =
        bus.waitFor([&wait] { return wait.result().has_value(); }, wait.deadline());
    switch (end) {
      case Bus::End::done:
        return *wait.result() == 0 ? kOk : kStopped;
      case Bus::End::interrupted:
        bus.StopTTSPlay(handle, 0, 0);
        return kStopped;
      case Bus::End::daemonGone:
      case Bus::End::busLost:
        throw Failure(explain(end));
      case Bus::End::deadline:
        if (Clock::now() < wait.deadline()) continue;
        std::cerr << "quillspeak: no result came; a newer request has probably displaced it, "
                     "or give it longer with --wait\n";
        return kNoResult;
    }
  }
}

}  // namespace

void checkText(const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const qs_ns::Utf8Unit unit = qs_ns::firstUtf8Unit(rest);
    if (!unit.valid) throw Failure("the text is not UTF-8; convert it, with iconv for example");
    const auto first = static_cast<unsigned char>(rest[0]);
    if ((first < 0x20 && !qs_ns::isBlank(rest[0])) || first == 0x7f) {
      throw Failure("the text holds a control character; take it out");
    }
    rest.remove_prefix(unit.bytes);
  }
}

int say(SayOptions options) {
  if (options.texts.empty() && !options.alert) options.texts.push_back(readInput());
  for (const std::string& text : options.texts)
    checkText(text);
  const std::int32_t params = options.speed | (options.fastVoice ? 1 << qs_ns::kVoiceShift : 0);
  const std::int32_t flags = options.precedence |
                             (options.alert ? qs_ns::kPlayAlertAfterTexts : 0) |
                             (options.silence ? qs_ns::kSilenceBetweenTexts : 0);
  Bus bus;
  if (!options.noWait) bus.holdSignals();
  const auto longest =
      longestSpeech(options.texts, options.speed, options.alert) + std::chrono::seconds(10);
  ResultWait wait(std::max(longest, options.wait), Clock::now());
  bus.onResult = [&wait](const PlayResult& one) { wait.take(one.handle, one.code, Clock::now()); };
  const std::uint64_t handle = bus.DoTTSAndPlay(options.texts, params, options.type, flags);
  if (handle == 0) throw Failure("there is nothing to speak; give a text that is not empty");
  wait.setHandle(handle);
  if (!options.noWait) return waitForResult(bus, wait, handle);
  std::cout << handle << '\n';
  return kOk;
}

}  // namespace qs_client
