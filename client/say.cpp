#include "say.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>

#include "bus.h"
#include "dbus/limits.h"
#include "failure.h"
#include "playback/play_request.h"
#include "result_wait.h"
#include "tts/utf8.h"

namespace qs_client {

namespace {

using Clock = std::chrono::steady_clock;

// How long an interrupt waits for the daemon to confirm the stop.
constexpr std::chrono::seconds kStopTime{2};

// No more than shows that it is too long. What the limit is, the daemon tells.
std::string readInput() {
  constexpr std::size_t kEnough = 1 << 20;
  std::string text;
  char block[4096];
  while (text.size() < kEnough) {
    const ssize_t count = read(STDIN_FILENO, block, sizeof block);
    if (count == 0) break;
    if (count > 0) {
      text.append(block, static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      throw Failure("standard input cannot be read: " + std::string(std::strerror(errno)) +
                    "; give the text as an argument, or from a file or a pipe");
    }
  }
  while (text.ends_with('\n') || text.ends_with('\r'))
    text.pop_back();
  // What was cut off may have been half a character.
  if (text.size() > qs_ns::kMaxTextWeight) text.assign(qs_ns::kMaxTextWeight + 1, 'a');
  return text;
}

// Throws where the daemon or the bus goes.
Bus::End awaitAnswer(Bus& bus, std::optional<std::uint64_t>& answer, Bus::Time deadline) {
  const Bus::End end =
      bus.waitFor([&] { return (answer = bus.answer<std::uint64_t>()).has_value(); }, deadline);
  if (end == Bus::End::daemonGone || end == Bus::End::busLost) throw Failure(explain(end));
  return end;
}

// After an interrupt, without a handle where the daemon has not told it yet. A further interrupt
// ends this at once.
int stop(Bus& bus, std::optional<std::uint64_t> handle) {
  const Bus::Time deadline = Clock::now() + kStopTime;
  if (!handle && awaitAnswer(bus, handle, deadline) != Bus::End::done) {
    std::cerr << "quillspeak: the daemon has not taken the text yet, and speaks it if it still "
                 "does; systemctl restart quillspeak prevents that\n";
    return kStopped;
  }
  bus.begin("StopTTSPlay", *handle, std::int32_t{0}, std::int32_t{0});
  std::optional<std::uint64_t> confirmed;
  if (awaitAnswer(bus, confirmed, deadline) != Bus::End::done) {
    std::cerr << "quillspeak: the daemon was told to stop, but has not confirmed it; if it speaks "
                 "on, systemctl restart quillspeak\n";
  }
  return kStopped;
}

int noResult(const std::string& why) {
  std::cerr << "quillspeak: " << why << '\n';
  return kNoResult;
}

int waitForResult(Bus& bus, const ResultWait& wait, std::uint64_t handle) {
  for (;;) {
    const Bus::End end = bus.waitFor(
        [&wait] { return wait.result().has_value() || wait.isPassedOver(); }, wait.deadline());
    switch (end) {
      case Bus::End::done:
        if (wait.result()) return *wait.result() == 0 ? kOk : kStopped;
        return noResult(
            "no result will come, since a newer request has displaced this one, or somebody "
            "stopped it before it began; say it again, or with --precedence urgent");
      case Bus::End::interrupted:
        return stop(bus, handle);
      case Bus::End::daemonGone:
      case Bus::End::busLost:
        throw Failure(explain(end));
      case Bus::End::deadline:
        if (Clock::now() < wait.deadline()) continue;
        return noResult(
            std::string("no result came; give it longer with --wait, or look whether the daemon's "
                        "sound device opens, in ") +
            kLog);
    }
  }
}

}  // namespace

void checkText(const std::string& text, const std::string& what) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const qs_ns::Utf8Unit unit = qs_ns::firstUtf8Unit(rest);
    if (!unit.valid) throw Failure(what + " is not UTF-8; convert it, with iconv for example");
    const auto first = static_cast<unsigned char>(rest[0]);
    if ((first < 0x20 && !qs_ns::isBlank(rest[0])) || first == 0x7f) {
      throw Failure(what + " holds a control character; take it out");
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
  bus.holdSignals();
  const auto longest =
      longestSpeech(options.texts, options.speed, options.alert) + std::chrono::seconds(10);
  const Bus::Time called = Clock::now();
  ResultWait wait(std::max(longest, options.wait), called);
  bus.onResult = [&wait](const PlayResult& one) { wait.take(one.handle, one.code, Clock::now()); };
  bus.begin("DoTTSAndPlay", options.texts, params, options.type, flags);
  std::optional<std::uint64_t> handle;
  const Bus::End end = awaitAnswer(bus, handle, called + Bus::kAnswerTime);
  if (end == Bus::End::interrupted) return stop(bus, handle);
  if (!handle) throw Failure(kNoAnswer);
  if (*handle == 0) throw Failure("there is nothing to speak; give a text that is not empty");
  wait.setHandle(*handle);
  if (!options.noWait) return waitForResult(bus, wait, *handle);
  std::cout << *handle << '\n';
  return kOk;
}

}  // namespace qs_client
