#include "app/command_line.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>

#include "app/process.h"
#include "platform/clock.h"
#include "platform/media_server.h"
#include "tts/speech_engine.h"

namespace qs_ns {

namespace {

constexpr int kFailed = -1;
constexpr int kExpectedArguments = 3;
constexpr int kSweep = -1;
constexpr int kFirstSweptTone = 1;
constexpr int kLastTone = 34;
constexpr std::chrono::seconds kToneTime{2};

void usage() {
  std::printf("usage: %s [-h] play \"text to play\"\n", invocationName());
  std::printf("       %s [-h] dump \"text to speech in wave file\"\n", invocationName());
}

bool hasOneText(int argc) {
  if (argc == kExpectedArguments) return true;
  syslog(LOG_ERR, "error: Invalid arguments count: %d. Expected: %d\n", argc, kExpectedArguments);
  usage();
  return false;
}

int synthesise(const char* text, const std::string& path) {
  const int result = qs_flite_tts_file(text, path, 0);
  if (result != 0) syslog(LOG_ERR, "Error in TTS: %d", result);
  return result;
}

int soundTone(int session, int tone) {
  std::printf("Tone index: %d\n", tone);
  const int started = ms_startTone(session, tone, 1);
  platform::clock().sleepFor(kToneTime);
  ms_stopSession(session);
  platform::clock().sleepFor(kToneTime);
  return started;
}

/// The tone that the text names as a number, or all of them for -1. The status of the last.
int soundTones(const char* text) {
  const int session = ms_createToneSession(0);
  if (session < 0 || ms_realizeSession(session) < 0 || ms_allocateSession(session) < 0) {
    return kFailed;
  }
  const long number = std::strtol(text, nullptr, 10);
  int last = 0;
  if (number == kSweep) {
    for (int tone = kFirstSweptTone; tone <= kLastTone; ++tone)
      last = soundTone(session, tone);
  } else {
    last = soundTone(session,
                     static_cast<int>(std::clamp<long>(number, std::numeric_limits<int>::min(),
                                                       std::numeric_limits<int>::max())));
  }
  ms_closeSession(session);
  ms_stop();
  return last;
}

int playOperation(int argc, char** argv) {
  if (!hasOneText(argc)) return kFailed;
  const char* const text = argv[2];
  ms_start();
  syslog(LOG_DEBUG, "playing text with length %u",
         static_cast<unsigned>(std::string_view(text).size()));
  if (synthesise(text, "/tmp/test.rwb") == 0 && soundTones(text) == 0) return 0;
  std::puts("\n Error in playOperation() ");
  return kFailed;
}

int waveOutputOperation(int argc, char** argv) {
  if (!hasOneText(argc)) return kFailed;
  syslog(LOG_NOTICE, "dumpFile text: %s", argv[2]);
  if (synthesise(argv[2], "/tmp/test.wav") == 0) return 0;
  std::printf("\n Error in waveOutputOperation() ");
  return kFailed;
}

int runOperation(int argc, char** argv) {
  const int option = getopt(argc, argv, "h");
  if (option != -1) {
    if (option != 'h') std::printf("Invalid option: %c\n", option);
    usage();
    return kFailed;
  }
  const std::string_view operation = argv[1];
  if (operation == "play") return playOperation(argc, argv);
  if (operation == "dump") return waveOutputOperation(argc, argv);
  syslog(LOG_ERR, "error: Unknown operation argument.\n");
  usage();
  return kFailed;
}

}  // namespace

void runCommandLine(int argc, char** argv) {
  qs_flite_init();
  const int result = runOperation(argc, argv);
  syslog(LOG_DEBUG, "After parse input: rc=%d", result);
  // However long the reader takes; a signal ends the wait.
  std::fflush(stdout);
}

}  // namespace qs_ns
