#include "fake_speech.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include <gtest/gtest.h>

#include "support/link_seams.h"

namespace test {

namespace {
FakeSpeech* current = nullptr;
std::atomic<int> wavesMade{0};
}  // namespace

qs_ns::Wave makeWave(int samples, short value) {
  qs_ns::Wave wave(new_wave());
  cst_wave_resize(wave.get(), samples, 1);
  wave->sample_rate = 16000;
  std::fill_n(wave->samples, samples, value);
  ++wavesMade;
  return wave;
}

int liveWaves() {
  return wavesMade - deletedWaves();
}

FakeSpeech::FakeSpeech() {
  current = this;
}
FakeSpeech::~FakeSpeech() {
  current = nullptr;
}

std::vector<std::string> FakeSpeech::texts() {
  const std::lock_guard lock(mutex);
  return asked;
}

qs_ns::Wave FakeSpeech::synthesise(const char* text, qs_ns::StreamCallback callback,
                                   qs_ns::QS_StreamUserData& userData) {
  EXPECT_EQ(userData.speed, kSpeed);
  EXPECT_EQ(userData.voice, 0);
  int number = 0;
  {
    const std::lock_guard lock(mutex);
    number = static_cast<int>(asked.size());
    asked.emplace_back(text);
  }
  EXPECT_FALSE(busy.exchange(true)) << "two builders build at the same time";
  qs_ns::Wave wave = speak(number, callback, userData);
  busy = false;
  return wave;
}

qs_ns::Wave FakeSpeech::speak(int number, qs_ns::StreamCallback callback,
                              qs_ns::QS_StreamUserData& userData) {
  at(number, Stage::start);
  if (userData.abandoned(userData)) return makeWave(0, 0);
  ++begun;
  const Outcome ending = outcome(number);
  if (ending == Outcome::null) return nullptr;
  qs_ns::Wave wave = makeWave(kSamples, static_cast<short>(number));
  wave->samples[kSamples - 1] = static_cast<short>(number + kLastSample);
  cst_audio_streaming_info info{};
  info.userdata = &userData;
  constexpr int kChunk = kSamples / 3;
  for (const auto& [start, stage] :
       {std::pair{0, Stage::none}, {kChunk, Stage::middle}, {2 * kChunk, Stage::last}}) {
    at(number, stage);
    const int last = stage == Stage::last ? 1 : 0;
    if (callback(wave.get(), start, kChunk, last, &info) != 0) {
      // As Flite does it: too late to abandon anything in the last call.
      if (last == 0) wave->num_samples = 0;
      break;
    }
  }
  at(number, Stage::done);
  if (ending == Outcome::empty) wave->num_samples = 0;
  return wave;
}

}  // namespace test

namespace qs_ns {

int qs_fetch_speed(const QS_StreamUserData* userData) {
  EXPECT_EQ(userData, nullptr);
  return test::FakeSpeech::kSpeed;
}

Wave qs_flite_tts_stream(const char* text, StreamCallback callback, QS_StreamUserData* userData,
                         bool wantWave) {
  EXPECT_TRUE(wantWave);
  return test::current->synthesise(text, callback, *userData);
}

}  // namespace qs_ns
