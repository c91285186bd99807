#include <syslog.h>

#include <string>

#include <gtest/gtest.h>

#include "engine_fakes.h"
#include "support/syslog_capture.h"
#include "tts/speech_engine.h"

namespace {

bool voiceCanRegister = true;
bool fliteWorks = true;
int addendaStatus = 0;
std::string addendaLoaded;

}  // namespace

// Flite's own, with failures on demand: the linker puts these in their place.
// NOLINTBEGIN(bugprone-reserved-identifier): --wrap names them so.
extern "C" {
cst_voice* __real_register_cmu_us_slt(const char* directory);
cst_voice* __wrap_register_cmu_us_slt(const char* directory);
cst_voice* __wrap_register_cmu_us_slt(const char* directory) {
  return voiceCanRegister ? __real_register_cmu_us_slt(directory) : nullptr;
}

int __wrap_flite_voice_add_lex_addenda(cst_voice* voice, const cst_string* path);
int __wrap_flite_voice_add_lex_addenda(cst_voice*, const cst_string* path) {
  addendaLoaded = path;
  return addendaStatus;
}

cst_wave* __real_flite_text_to_wave(const char* text, cst_voice* voice);
cst_wave* __wrap_flite_text_to_wave(const char* text, cst_voice* voice);
cst_wave* __wrap_flite_text_to_wave(const char* text, cst_voice* voice) {
  return fliteWorks ? __real_flite_text_to_wave(text, voice) : nullptr;
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using namespace qs_ns;

int callbacks = 0;

int countCallback(const cst_wave*, int, int, int, cst_audio_streaming_info*) {
  ++callbacks;
  return CST_AUDIO_STREAM_CONT;
}

Wave stream(int voice = 0) {
  QS_StreamUserData userData{nullptr, 0, voice};
  return qs_flite_tts_stream("Hi", countCallback, &userData, true);
}

TEST(VoiceChoice, GoesFromNoVoiceToTheConfiguredOneToTheOneOfFiles) {
  // Nothing is spoken without a voice.
  voiceCanRegister = false;
  qs_flite_init();
  EXPECT_EQ(test::countLog("qs_register_voice: Error in voice register call", LOG_ERR), 1);
  EXPECT_EQ(addendaLoaded, "");
  EXPECT_EQ(stream(), nullptr);
  EXPECT_EQ(qs_flite_tts_file("Hi", "", 0), 0);
  EXPECT_EQ(callbacks, 0);
  EXPECT_EQ(test::countLog("qs_flite_tts_stream: voice is NULL\n", LOG_DEBUG), 1);
  EXPECT_EQ(test::countLog("qs_flite_tts_file: voice is NULL\n", LOG_DEBUG), 1);

  // A later cycle registers it; missing addenda do no harm.
  voiceCanRegister = true;
  addendaStatus = -1;
  qs_flite_init();
  EXPECT_EQ(addendaLoaded, "/etc/addenda.lex");
  EXPECT_EQ(test::countLog("qs_register_voice: Error while loading LEX addenda file", LOG_ERR), 1);
  cst_voice* const slt = qs_fetch_voice(0);
  ASSERT_NE(slt, nullptr);
  EXPECT_NE(stream(), nullptr);
  EXPECT_GT(callbacks, 0);

  // Whatever is asked for and configured, it is the only voice.
  for (const char* configured : {"slt", "kal16", "other"})
    for (const int requested : {0, 1, 7}) {
      test::properties().strings["qs_voice"] = configured;
      test::properties().reads = 0;
      EXPECT_EQ(qs_fetch_voice(requested), slt) << configured << requested;
      EXPECT_EQ(test::properties().reads, 1);
    }
  EXPECT_EQ(test::countLog("qs_fetch_voice: FAST VOICE KAL16 is disabled", LOG_ERR), 3);
  EXPECT_EQ(test::countLog("qs_fetch_voice: req_voice: 7", LOG_NOTICE), 3);

  // Where Flite fails, so do both, with texts of one piece and of several.
  fliteWorks = false;
  EXPECT_EQ(qs_flite_tts_file("Hi", "", 0), -2);
  EXPECT_EQ(qs_flite_tts_file(std::string(300, 'a'), "", 0), -2);
  EXPECT_EQ(stream(), nullptr);
  fliteWorks = true;

  // Since a file was synthesised its voice is the default, and the property no longer asked.
  test::properties().reads = 0;
  EXPECT_EQ(qs_fetch_voice(0), slt);
  EXPECT_EQ(test::properties().reads, 0);
  voiceCanRegister = false;
  qs_flite_init();
  EXPECT_EQ(qs_fetch_voice(0), slt);
  EXPECT_EQ(qs_fetch_voice(1), nullptr);
}

}  // namespace
