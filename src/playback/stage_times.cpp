#include "playback/stage_times.h"

#include <syslog.h>

#include <chrono>

#include "platform/clock.h"

namespace qs_ns {

void StageTimes::note(Stage stage) {
  if (isNoted(stage)) return;
  noted[index(stage)] = true;
  times[index(stage)] = platform::clock().now();
}

long long StageTimes::microsecondsTo(Stage stage) const {
  if (!isNoted(stage)) return -1;
  const auto time = times[index(stage)] - times[index(Stage::called)];
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

void StageTimes::log(std::uint64_t handle) const {
  syslog(LOG_DEBUG,
         "Stages of request %llu, us after the call: taken %lld, session %lld, samples %lld, frame "
         "%lld, "
         "audible %lld",
         static_cast<unsigned long long>(handle), microsecondsTo(Stage::taken),
         microsecondsTo(Stage::sessionOpened), microsecondsTo(Stage::firstSamples),
         microsecondsTo(Stage::firstFrame), microsecondsTo(Stage::firstAudible));
}

}  // namespace qs_ns
