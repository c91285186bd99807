#include "engine_fakes.h"

#include <cstdlib>
#include <mutex>

#include "platform/property_store.h"

namespace test {

Properties& properties() {
  static Properties instance;
  return instance;
}

Noise& noise() {
  static Noise instance;
  return instance;
}

Samples samplesOf(const cst_wave* wave) {
  if (wave == nullptr) return {};
  return Samples(wave->samples, wave->samples + wave->num_samples);
}

Samples fliteAlone(const std::string& text, float stretch) {
  cst_voice* voice = qs_ns::qs_fetch_voice(0);
  feat_set_float(voice->features, "duration_stretch", stretch);
  const qs_ns::Wave wave(flite_text_to_wave(text.c_str(), voice));
  return samplesOf(wave.get());
}

}  // namespace test

namespace {

// Texts are spoken from several threads at once.
std::mutex readsMutex;

void countRead() {
  const std::lock_guard lock(readsMutex);
  ++test::properties().reads;
}

}  // namespace

int getIntegerProperty(const char* key, int* value) {
  countRead();
  const auto& store = test::properties();
  const auto found = store.integers.find(key);
  if (found == store.integers.end()) return -1;
  *value = found->second;
  return 0;
}

int getStringProperty(const char* key, char* value, std::size_t size) {
  countRead();
  const auto& store = test::properties();
  const auto found = store.strings.find(key);
  if (found == store.strings.end() || found->second.size() >= size) return -1;
  value[found->second.copy(value, size)] = '\0';
  return 0;
}

extern "C" int rand() noexcept {
  auto& noise = test::noise();
  ++noise.drawn;
  if (noise.left >= 0 && noise.left-- == 0) noise.stop = true;
  return 1;
}
