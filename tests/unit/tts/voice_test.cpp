#include "tts/voice.h"

#include <atomic>
#include <deque>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/background.h"

namespace {

using qs_ns::Urgency;
using qs_ns::Voice;
using qs_ns::VoiceHold;

/// Threads that want the voice, and the order in which they had it.
class Line {
 public:
  Voice voice;
  std::string order;
  std::atomic<bool> givesUp{false};

  /// Returns once the thread waits in the line, with `name` for what comes of it.
  void add(char name, Urgency urgency) {
    threads.emplace_back([this, name, urgency] {
      if (!voice.take(urgency, [this] { return givesUp.load(); })) return false;
      const VoiceHold hold(voice);
      order += name;
      return true;
    });
    EXPECT_FALSE(threads.back().endsWithoutSleep());
  }
  /// As speech that has not to wait.
  void speak(char name) {
    if (!voice.take(Urgency::speech, [] { return true; })) return;
    const VoiceHold hold(voice);
    order += name;
  }
  /// How many had the voice.
  int finish() {
    int had = 0;
    for (auto& thread : threads)
      had += thread.get() ? 1 : 0;
    return had;
  }

 private:
  std::deque<test::Background<std::function<bool()>>> threads;
};

TEST(Voice, GoesToSpeechFirstAndElseToWhoeverCameFirst) {
  Line line;
  line.voice.lock();
  line.add('c', Urgency::background);
  line.add('S', Urgency::speech);
  line.add('d', Urgency::background);
  line.add('T', Urgency::speech);
  line.voice.unlock();
  EXPECT_EQ(line.finish(), 4);
  EXPECT_EQ(line.order, "STcd");
}

TEST(Voice, StaysAwayFromBackgroundWorkWhileATextIsBeingSpoken) {
  Line line;
  line.voice.beginSpeech();
  line.voice.beginSpeech();
  line.voice.endSpeech();
  line.speak('S');
  line.add('c', Urgency::background);
  EXPECT_EQ(line.order, "S");
  EXPECT_TRUE(line.voice.isWantedBySpeech());
  line.voice.endSpeech();
  EXPECT_EQ(line.finish(), 1);
}

// Were a wait to go on, the test would run out of time.
TEST(Voice, EndsTheWaitsOfThoseWhoGiveUpAndLetsTheOthersOn) {
  Line line;
  line.voice.lock();
  line.add('c', Urgency::background);
  line.add('S', Urgency::speech);
  line.givesUp = true;
  line.voice.wake();
  EXPECT_EQ(line.finish(), 0);
  int asked = 0;
  EXPECT_FALSE(line.voice.take(Urgency::background, [&] {
    // As if the reason had come just after the question.
    if (asked == 0) line.voice.wake();
    return asked++ != 0;
  }));
  line.voice.unlock();
  line.speak('d');
  EXPECT_EQ(line.order, "d");
}

}  // namespace
