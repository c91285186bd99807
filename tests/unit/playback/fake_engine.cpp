#include "fake_engine.h"

#include <algorithm>

#include "cache/static_phrase_cache.h"

namespace test {

namespace {

FakeEngine* current = nullptr;

qs_ns::Wave makeWave(int samples, std::int16_t value) {
  qs_ns::Wave wave(new_wave());
  cst_wave_resize(wave.get(), samples, 1);
  std::fill_n(wave->samples, samples, value);
  return wave;
}

}  // namespace

FakeEngine::FakeEngine() {
  current = this;
}
FakeEngine::~FakeEngine() {
  current = nullptr;
}

qs_ns::Wave FakeEngine::synthesise(const char* text, qs_ns::StreamCallback callback,
                                   qs_ns::QS_StreamUserData* userData) {
  lastUserData = *userData;
  // The bus thread may want it, so it is not to be held here; taken twice, it would end the test.
  { const platform::MutexLock free(qs_ns::cacheMutex); }
  if (userData->beforePiece(*userData) != 0 || userData->abandoned(*userData)) {
    return makeWave(0, 0);
  }
  texts.emplace_back(text);
  qs_ns::Wave wave = makeWave(kTextSamples, static_cast<unsigned char>(*text));
  cst_audio_streaming_info info{};
  info.userdata = userData;
  for (int chunk = 0; chunk < kChunks; ++chunk) {
    onChunk(text, chunk);
    const int last = chunk == kChunks - 1 ? 1 : 0;
    if (callback(wave.get(), chunk * kChunkSamples, kChunkSamples, last, &info) != 0) {
      return makeWave(0, 0);
    }
  }
  return wave;
}

}  // namespace test

namespace qs_ns {

Wave qs_flite_tts_stream(const char* text, StreamCallback callback, QS_StreamUserData* userData,
                         bool /*wantWave*/) {
  return test::current->synthesise(text, callback, userData);
}

}  // namespace qs_ns
