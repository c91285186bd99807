// The silence with which speech begins is left out, and nothing of what can be heard.

#include <cmath>
#include <cstdlib>

#include <flite/flite.h>
#include <gtest/gtest.h>

#include "cache/phrase_list.h"
#include "platform/audio/silence_skipper.h"
#include "unit/platform/audio_samples.h"

extern "C" cst_voice* register_cmu_us_slt(const char*);

namespace {

using test::Samples;

class Recorder final : public platform::audio::Output {
 public:
  explicit Recorder(Samples& to) : played(to) {}
  int open(std::string&) override { return 0; }
  int write(const std::int16_t* samples, std::size_t frames) override {
    played.insert(played.end(), samples, samples + frames);
    return 0;
  }
  int close() override { return 0; }

 private:
  Samples& played;
};

/// What is left of `sent`.
Samples playedOf(const Samples& sent) {
  Samples played;
  platform::audio::SilenceSkipper skipper(std::make_unique<Recorder>(played));
  EXPECT_EQ(test::play(skipper, sent), 0);
  return played;
}

constexpr std::size_t kMs = 48;

double level(const Samples& samples, std::size_t from, std::size_t frames) {
  double sum = 0;
  for (std::size_t i = from; i < std::min(from + frames, samples.size()); ++i)
    sum += static_cast<double>(samples[i]) * samples[i];
  return std::sqrt(sum / static_cast<double>(frames));
}

/// At a volume level, three samples for each of the voice's.
Samples speak(const char* text, int volume) {
  static cst_voice* const voice = (flite_init(), register_cmu_us_slt(nullptr));
  feat_set_float(voice->features, "duration_stretch", 0.75);
  const double gain = std::pow(1.3, volume - 2) / 2;
  cst_wave* const wave = flite_text_to_wave(text, voice);
  Samples samples;
  for (int i = 0; i < wave->num_samples; ++i)
    samples.insert(samples.end(), 3,
                   static_cast<std::int16_t>(
                       std::clamp(std::lround(wave->samples[i] * gain), -32768L, 32767L)));
  delete_wave(wave);
  return samples;
}

TEST(LeadingSilence, IsLeftOutOfSpeechAndNoConsonantWithItAtAnyVolume) {
  std::vector<const char*> texts(qs_ns::cachePhraseList.begin(), qs_ns::cachePhraseList.end());
  texts.insert(texts.end(),
               {"four", "hello",  "she",     "half", "thirty", "five",    "fish", "think", "hat",
                "who",  "thanks", "fan",     "her",  "shoes",  "six",     "see",  "zero",  "vowel",
                "view", "these",  "pan",     "tea",  "key",    "big",     "dog",  "go",    "chin",
                "jam",  "man",    "nine",    "ring", "low",    "you",     "we",   "on",    "off",
                "a",    "eight",  "unknown", "hour", "first",  "theatre", "heat", "huge",  "phone",
                "shut", "south",  "very",    "what", "where"});
  for (const int volume : {-5, 2, 8}) {
    std::size_t least = kMs * 1000;
    for (const char* const text : texts) {
      SCOPED_TRACE(testing::Message() << text << " at " << volume);
      const Samples sent = speak(text, volume);
      const Samples played = playedOf(sent);
      const std::size_t skipped = sent.size() - played.size();
      least = std::min(least, skipped);
      ASSERT_TRUE(std::equal(played.begin(), played.end(),
                             sent.begin() + std::ssize(sent) - std::ssize(played)));
      double loudest = 0;
      for (std::size_t at = skipped; at < sent.size(); at += 10 * kMs)
        loudest = std::max(loudest, level(sent, at, 10 * kMs));
      // 41 dB below the vowel; the voice's own noise reaches 43, and no consonant stays below that.
      for (std::size_t at = 0; at < skipped; at += 10 * kMs)
        EXPECT_LT(level(sent, at, std::min(10 * kMs, skipped - at)), 0.009 * loudest + 1)
            << at / kMs << " of " << skipped / kMs << " ms";
    }
    EXPECT_GT(least, 90 * kMs) << "or it is not worth the trouble";
  }
}

TEST(LeadingSilence, IsLeftOutUpToALimitAndNothingOfASoundThatBeginsAtOnce) {
  const Samples silence(400 * kMs);
  EXPECT_EQ(playedOf(silence).size(), 110 * kMs);
  EXPECT_EQ(playedOf(Samples(50 * kMs)).size(), 10 * kMs);
  Samples alert(333, 200);
  EXPECT_EQ(playedOf(alert), alert);
  // Steady, and at the smallest volume.
  alert.assign(200 * kMs, 110);
  EXPECT_EQ(playedOf(alert), alert);
  // One that swells for half a second.
  alert.resize(500 * kMs);
  for (std::size_t i = 0; i < alert.size(); ++i)
    alert[i] =
        static_cast<std::int16_t>(8000.0 * static_cast<double>(i) /
                                  static_cast<double>(alert.size()) * std::sin(0.1 * double(i)));
  EXPECT_LE(alert.size() - playedOf(alert).size(), 10 * kMs);
}

}  // namespace
