// The client of tools/speak: plays texts through the daemon on the bus of DBUS_SYSTEM_BUS_ADDRESS
// and prints what happened.

#include <getopt.h>

#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include <alsa/asoundlib.h>

#include "play_call.h"
#include "recording.h"

namespace {

constexpr int kAlert = 4;
constexpr int kSilence = 8;

struct Options {
  PlayRequest request;
  std::string sound;
  std::optional<std::int64_t> startedUs;
  bool tryAlsa = false;

  /// The file of the recording; empty where the sound goes elsewhere.
  std::string recording() const {
    return sound.starts_with("wav:") ? sound.substr(std::strlen("wav:")) : std::string();
  }
};

template <typename Number>
std::optional<Number> parse(const char* text) {
  Number number{};
  const char* end = text + std::strlen(text);
  const auto parsed = std::from_chars(text, end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return number;
}

// `tools/speak` is the user's side of these, and explains them.
std::optional<Options> readOptions(int argc, char** argv) {
  const option known[] = {{"try-alsa", no_argument, nullptr, 'a'},
                          {"sound", required_argument, nullptr, 'o'},
                          {"started", required_argument, nullptr, 't'},
                          {"speed", required_argument, nullptr, 's'},
                          {"alert", no_argument, nullptr, 'A'},
                          {"silence", no_argument, nullptr, 'S'},
                          {nullptr, 0, nullptr, 0}};
  Options options;
  for (int key = 0; (key = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    if (key == 'a')
      options.tryAlsa = true;
    else if (key == 'o')
      options.sound = optarg;
    else if (key == 't')
      options.startedUs = parse<std::int64_t>(optarg);
    else if (key == 's')
      options.request.params = parse<std::int32_t>(optarg).value_or(0);
    else if (key == 'A')
      options.request.flags |= kAlert;
    else if (key == 'S')
      options.request.flags |= kSilence;
    else
      return std::nullopt;
  }
  options.request.texts.assign(argv + optind, argv + argc);
  return options;
}

void ignoreAlsaMessage(const char*, int, const char*, int, const char*, ...) {}

// Does ALSA's default take what the daemon plays? A null device takes everything, and is no answer.
bool alsaDefaultOpens() {
  snd_lib_error_set_handler(ignoreAlsaMessage);
  snd_pcm_t* opened = nullptr;
  if (snd_pcm_open(&opened, "default", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0) return false;
  const std::unique_ptr<snd_pcm_t, decltype(&snd_pcm_close)> pcm(opened, snd_pcm_close);
  constexpr int kResample = 1;
  constexpr unsigned kLatencyUs = 80000;
  return snd_pcm_type(opened) != SND_PCM_TYPE_NULL &&
         snd_pcm_set_params(opened, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1,
                            Recording::kRate, kResample, kLatencyUs) == 0;
}

void reportRecording(const PlayCall& play, const std::string& path) {
  const auto recording = Recording::read(path);
  if (!recording) return;
  std::printf("length       %.2f s\n", recording->seconds());
  std::printf("peak         %d of 32768\n", recording->peak());
  const auto grew = play.untilRecordingGrew();
  const auto before = recording->secondsBeforeSound();
  if (grew && before) {
    std::printf(
        "first sound  %.3f s after the call (recording began after %.3f s, sound in it "
        "after %.3f s)\n",
        grew->count() + *before, grew->count(), *before);
  } else {
    std::printf("first sound  none: the recording is silent\n");
  }
}

void report(const PlayCall& play, const Options& options) {
  std::printf("handle       %" PRIu64 "\n", play.handle());
  std::printf("result       %" PRIu32 "%s\n", play.result(),
              play.result() == 0 ? " (played to its end)" : " (stopped)");
  std::printf("sound        %s\n", options.sound.c_str());
  if (!options.recording().empty()) reportRecording(play, options.recording());
  if (options.startedUs) {
    const std::chrono::system_clock::time_point started{
        std::chrono::microseconds(*options.startedUs)};
    const std::chrono::duration<double> untilCall = play.calledAt() - started;
    std::printf("call made    %.3f s after the start of the command\n", untilCall.count());
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<Options> options = readOptions(argc, argv);
  if (!options) return 2;
  if (options->tryAlsa) return alsaDefaultOpens() ? 0 : 1;

  PlayCall play(options->request, options->recording());
  if (!play.run()) {
    std::fprintf(stderr, "speak: %s\n", play.error().c_str());
    return 1;
  }
  report(play, *options);
  return play.result() == 0 ? 0 : 1;
}
