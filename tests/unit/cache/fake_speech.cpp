#include "fake_speech.h"

#include <algorithm>
#include <utility>

#include <gtest/gtest.h>

#include "cache/static_phrase_cache.h"

namespace test {

namespace {
FakeSpeech* current = nullptr;
}  // namespace

qs_ns::Wave makeWave(int samples, short value) {
  qs_ns::Wave wave(new_wave());
  cst_wave_resize(wave.get(), samples, 1);
  wave->sample_rate = 16000;
  std::fill_n(wave->samples, samples, value);
  return wave;
}

FakeSpeech::FakeSpeech() {
  current = this;
}
FakeSpeech::~FakeSpeech() {
  current = nullptr;
}

qs_ns::Wave FakeSpeech::synthesise(const char* text, qs_ns::StreamCallback callback,
                                   qs_ns::QS_StreamUserData& userData) {
  // The bus thread may want it, so it is not to be held here; taken twice, it would end the test.
  { const platform::MutexLock free(qs_ns::cacheMutex); }
  if (userData.beforePiece != nullptr && userData.beforePiece(userData) != 0) return makeWave(0, 0);
  EXPECT_FALSE(busy.exchange(true)) << "two builders build at the same time";
  lastUserData = userData;
  texts.emplace_back(text);
  qs_ns::Wave wave = speak(static_cast<int>(texts.size()) - 1, *text, callback, userData);
  busy = false;
  return wave;
}

qs_ns::Wave FakeSpeech::speak(int number, char sample, qs_ns::StreamCallback callback,
                              qs_ns::QS_StreamUserData& userData) {
  at(number, Stage::start);
  const auto urgency = userData.background ? qs_ns::Urgency::background : qs_ns::Urgency::speech;
  const auto abandoned = [&] { return userData.abandoned(userData); };
  if (!qs_ns::voiceMutex.take(urgency, abandoned)) return makeWave(0, 0);
  const qs_ns::VoiceHold hold(qs_ns::voiceMutex);
  if (abandoned()) return makeWave(0, 0);
  const Outcome ending = outcome(number);
  if (ending == Outcome::null) return nullptr;
  qs_ns::Wave wave = makeWave(kSamples, sample);
  wave->samples[kSamples - 1] = static_cast<short>(number);
  cst_audio_streaming_info info{};
  info.userdata = &userData;
  for (const auto& [start, stage] :
       {std::pair{0, Stage::first}, {kChunk, Stage::middle}, {2 * kChunk, Stage::last}}) {
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

int qs_fetch_speed(const QS_StreamUserData* /*userData*/) {
  return test::FakeSpeech::kSpeed;
}

Wave qs_flite_tts_stream(const char* text, StreamCallback callback, QS_StreamUserData* userData,
                         bool wantWave) {
  EXPECT_TRUE(wantWave);
  return test::current->synthesise(text, callback, *userData);
}

}  // namespace qs_ns
