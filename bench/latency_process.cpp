// The process itself: its start, its processor time, its memory, its wake-ups.

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "latency_measurements.h"
#include "tts/speech_engine.h"
#include "tts/wave.h"

namespace bench {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// Notes when the daemon's name gets an owner. One thread, the client's.
class NameWatch {
 public:
  explicit NameWatch(test::Client& watching) : client(watching) {
    sd_bus_slot* raw = nullptr;
    if (sd_bus_match_signal(client.bus(), &raw, nullptr, "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "NameOwnerChanged", onChange, this) < 0)
      throw std::runtime_error("names cannot be watched");
    slot.reset(raw);
  }

  Moment await() {
    if (!client.until([this] { return owned.has_value(); }))
      throw std::runtime_error("the daemon does not start");
    return *owned;
  }

 private:
  struct Release {
    void operator()(sd_bus_slot* freed) const { sd_bus_slot_unref(freed); }
  };

  static int onChange(sd_bus_message* message, void* self, sd_bus_error*) {
    const char* name = "";
    const char* before = "";
    const char* after = "";
    sd_bus_message_read(message, "sss", &name, &before, &after);
    if (std::string_view(name) == test::kService && *after != '\0')
      static_cast<NameWatch*>(self)->owned = Clock::now();
    return 0;
  }

  test::Client& client;
  std::optional<Moment> owned;
  std::unique_ptr<sd_bus_slot, Release> slot;
};

double processorMs(clockid_t clock) {
  timespec time{};
  if (clock_gettime(clock, &time) != 0) throw std::runtime_error("no processor time is told");
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

struct Synthesis {
  double processorMs;
  double speechSeconds;
};

/// What Flite alone takes for the text, in one utterance and at the usual speed.
Synthesis synthesise(const std::string& text) {
  constexpr float kUsualStretch = 0.75F;
  cst_voice* const voice = qs_ns::qs_fetch_voice(0);
  qs_ns::voiceMutex.lock();
  const qs_ns::VoiceHold hold(qs_ns::voiceMutex);
  feat_set_float(voice->features, "duration_stretch", kUsualStretch);
  const double before = processorMs(CLOCK_THREAD_CPUTIME_ID);
  qs_ns::Wave wave(flite_text_to_wave(text.c_str(), voice));
  const double length = static_cast<double>(wave->num_samples) / wave->sample_rate;
  wave.reset();
  return {processorMs(CLOCK_THREAD_CPUTIME_ID) - before, length};
}

/// The first number behind `key` in a file of /proc.
double numberIn(const std::filesystem::path& path, const std::string& key) {
  std::ifstream file(path);
  for (std::string word; file >> word;) {
    if (word != key) continue;
    double number = 0;
    file >> number;
    return number;
  }
  // A thread may have ended since it was listed.
  return 0;
}

std::string folderOf(pid_t process) {
  return "/proc/" + std::to_string(process);
}

double wakeUps(pid_t process) {
  double all = 0;
  for (const auto& task : std::filesystem::directory_iterator(folderOf(process) + "/task"))
    all += numberIn(task.path() / "status", "voluntary_ctxt_switches:") +
           numberIn(task.path() / "status", "nonvoluntary_ctxt_switches:");
  return all;
}

}  // namespace

void measureStart(Stand& stand, Report& report, int repetitions) {
  Row name{.name = "start",
           .what = "start of the process to its name",
           .unit = "ms",
           .targets = {{Statistic::p95, 50}}};
  Row word{.name = "start",
           .what = "start of the process to the first word heard",
           .unit = "ms",
           .targets = {{Statistic::p95, 100}}};
  for (int i = 0; i < repetitions; ++i) {
    stand.prepare();
    NameWatch watch(stand.client());
    const Moment begun = stand.launch();
    name.values.push_back(Milliseconds(watch.await() - begun).count());
    const Call call = stand.play(stand.texts.word());
    word.values.push_back(Milliseconds(stand.awaitHeard(call) - begun).count());
    stand.stop(call);
  }
  report.add(std::move(name));
  report.add(std::move(word));
}

void measureProcessorTime(Stand& stand, Report& report, int repetitions) {
  stand.start();
  clockid_t clock{};
  if (clock_getcpuclockid(stand.daemon().id(), &clock) != 0)
    throw std::runtime_error("no processor time is told");
  Row all{.name = "processor",
          .what = "processor time for a second of speech",
          .unit = "ms",
          .targets = {{Statistic::median, 40}}};
  Row own{.name = "processor",
          .what = "the same beyond what Flite takes alone",
          .unit = "ms",
          .targets = {{Statistic::median, 10}}};
  qs_ns::qs_flite_init();
  synthesise(kWord);  // what is done once
  for (int i = 0; i < std::min(repetitions, 10); ++i) {
    const std::string text = stand.texts.sentence();
    const Synthesis alone = synthesise(text);
    stand.settle();
    const double before = processorMs(clock);
    stand.playWhole(text);
    stand.recorder.awaitQuiet(milliseconds(100));
    const double used = processorMs(clock) - before;
    all.values.push_back(used / alone.speechSeconds);
    own.values.push_back((used - alone.processorMs) / alone.speechSeconds);
  }
  report.add(std::move(all));
  report.add(std::move(own));
}

void measureIdle(Stand& stand, Report& report, int) {
  stand.start();
  for (int i = 0; i < 10; ++i)
    stand.playWhole(stand.texts.word());
  const auto waitFor = [&](seconds time) { stand.client().until([] { return false; }, time); };
  waitFor(seconds(8));
  const pid_t process = stand.daemon().id();
  Row memory{.name = "idle",
             .what = "resident memory with all phrases and ten texts",
             .unit = "MiB",
             .targets = {{Statistic::largest, 18}},
             .values = {numberIn(folderOf(process) + "/smaps_rollup", "Rss:") / 1024}};
  Row switches{.name = "idle",
               .what = "context switches in a second of idling",
               .unit = "1/s",
               .targets = {{Statistic::mean, 1}}};
  Row streams{.name = "idle",
              .what = "open streams at the sound server when idle",
              .unit = "",
              .targets = {{Statistic::largest, 0}}};
  double before = wakeUps(process);
  for (int i = 0; i < 10; ++i) {
    waitFor(seconds(1));
    const double now = wakeUps(process);
    switches.values.push_back(now - before);
    before = now;
    streams.values.push_back(stand.playingStreams());
  }
  report.add(std::move(memory));
  report.add(std::move(switches));
  report.add(std::move(streams));
}

}  // namespace bench
