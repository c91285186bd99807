#include "latency_stand.h"

#include <filesystem>
#include <stdexcept>

namespace bench {

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {
constexpr char kCacheFull[] = "Number of phrases in cache:51";
}  // namespace

void Stand::end() {
  connected.reset();
  running.reset();
  daemonFolder.reset();
}

void Stand::prepare() {
  end();
  connected.emplace(bus.address());
  if (!connected->awaitName(false)) throw std::runtime_error("the old daemon keeps its name");
  recorder.awaitQuiet(milliseconds(100));
  daemonFolder.emplace();
  // Flite complains where it has no words of its own to read.
  std::filesystem::create_directory(*daemonFolder / "files");
  test::writeFile(*daemonFolder / "files/addenda.lex", "");
}

Moment Stand::launch() {
  const Moment begun = Clock::now();
  // The severity of an installed daemon: what logs less is faster.
  running.emplace(*daemonFolder, bus.address(),
                  test::Daemon::Options{.audio = "alsa:pulse", .baseSeverity = 6});
  return begun;
}

void Stand::start() {
  prepare();
  launch();
  if (!connected->awaitName()) throw std::runtime_error("the daemon does not start");
  if (!running->waitForLog(kCacheFull)) throw std::runtime_error("the phrases are not built");
}

void Stand::settle() {
  recorder.awaitQuiet(milliseconds(100));
  const std::chrono::microseconds more(std::uniform_int_distribution<>(0, 20'000)(chance));
  client().until([] { return false; }, more);
}

Call Stand::play(const std::string& text) {
  ++calls;
  const Moment now = Clock::now();
  const test::Reply reply = client().play({text}, 0, 0, calls);
  if (!reply.error.empty()) throw std::runtime_error("a call failed: " + reply.error);
  return {now, reply.value, calls};
}

void Stand::awaitResult(const Call& call) {
  if (!client().until([&] { return client().isReported(call.number); }))
    throw std::runtime_error("no result came");
}

void Stand::stop(const Call& call) {
  client().stop(call.handle);
  awaitResult(call);
}

void Stand::playWhole(const std::string& text) {
  awaitResult(play(text));
}

Moment Stand::awaitHeard(const Call& call) {
  const auto heard = recorder.awaitAudible(call.at, call.at + seconds(5));
  if (!heard) throw std::runtime_error("nothing is heard");
  return *heard;
}

void Stand::pause(milliseconds least) {
  const auto range = static_cast<int>(std::chrono::microseconds(least).count());
  const std::chrono::microseconds more(std::uniform_int_distribution<>(0, range)(chance));
  client().until([] { return false; }, least + more);
}

}  // namespace bench
