// Texts that a stranger might send: what each leads to, and what it may cost.

#include <ctime>

#include "daemon/harness.h"

namespace {

using test::times;

constexpr double kFileRate = 16000;
constexpr int kAudible = 327;  // 1 % of full scale

enum class Outcome { spoken, silent, refused };

struct Row {
  const char* what;
  std::string text;
  Outcome outcome;
  double sound;  // s of it at most
  double time;   // s of the processor until the file is there, at most
};

/// Limits are three times and more of what was measured where nothing else ran.
std::vector<Row> hostileTexts() {
  using enum Outcome;
  std::vector<Row> rows = {
      {"a blank", " ", silent, 0.5, 0.5},
      {"dots", times(1000, "."), silent, 0.5, 0.5},
      {"mixed marks", "hello" + times(300, "?!\"')"), spoken, 2, 0.5},
      {"blanks and marks in turn", times(500, " ."), silent, 2, 1},
      {"brackets", times(200, "([{<") + "x" + times(200, ">}])"), spoken, 2, 0.5},
      {"apostrophes", times(200, "'s"), spoken, 40, 2},
      {"4000 letters in one word", times(4000, "a"), spoken, 200, 6},
      {"spelled, but for the last letter", times(63, "w") + "a", spoken, 40, 1},
      {"400 digits", times(400, "7"), spoken, 200, 4},
      {"a number with commas", times(30, "1,000"), spoken, 60, 2},
      {"a price that ends in commas", "$1,,,", spoken, 2, 0.5},
      {"a price outside the tables", "$100,,0 million", spoken, 5, 0.5},
      {"prices", times(30, "$9.99 "), spoken, 80, 2},
      {"a king of many numbers", "King " + times(100, "XVI"), spoken, 80, 2},
      {"fractions", times(20, "1/2/3/"), spoken, 80, 2},
      {"huge numbers", "1e999999999 -1e-308 0x7fffffffffffffff", spoken, 20, 1},
      {"signs", times(20, "+-*/=%&@#~^|\\_"), spoken, 200, 4},
      {"formats", "%s%n%s%n%99999999d%p", spoken, 20, 0.5},
      {"an address", "http://" + times(60, "a.b@") + "example.org/?q=1&r=2#s", spoken, 60, 2},
      {"control characters", "a\x01\x02\x1b[31m\x7f\x08 b", spoken, 3, 0.5},
      {"accents", times(500, "\xC3\xA9"), silent, 5, 0.5},
      {"emoji", times(200, "\xF0\x9F\x98\x80"), silent, 3, 0.5},
      {"right to left", "\u202Eabc \u05E9\u05DC\u202C", spoken, 3, 0.5},
      {"separators of lines", times(50, "a\xE2\x80\xA8 b\xE2\x80\xA9 "), spoken, 60, 2},
      {"plain words", times(400, "a word "), spoken, 240, 3.2},
      {"a megabyte", times(1 << 20, "a"), refused, 0, 0.5},
  };
  for (const char mark : std::string(".!?,)\"':}]"))
    rows.push_back(
        {"400 equal marks behind a word", "hello" + std::string(400, mark), spoken, 2, 0.5});
  return rows;
}

/// What the process has used so far, in seconds: other than the time on the clock, it is the same
/// beside whatever else runs.
double processorTime(pid_t process) {
  clockid_t clock = 0;
  timespec used{};
  EXPECT_EQ(clock_getcpuclockid(process, &clock), 0);
  EXPECT_EQ(clock_gettime(clock, &used), 0);
  return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

using HostileTexts = test::DaemonTest;

TEST_F(HostileTexts, LeadToSoundOrARefusalAtABoundedCost) {
  start();
  // What is there before the first text: the voice, and the first buffers.
  EXPECT_EQ(client->fetch("hello", folder / "x.wav").error, "");
  // The most memory that it had, in KiB, since that was forgotten.
  const std::string process = "/proc/" + std::to_string(daemon->id());
  const auto peakMemory = [&] {
    const std::string status = test::readFile(process + "/status");
    return std::stol(status.substr(status.find("VmHWM:") + 6));
  };
  const long before = peakMemory();
  const std::string path = folder / "x.wav";
  for (const Row& row : hostileTexts()) {
    std::filesystem::remove(path);
    test::writeFile(process + "/clear_refs", "5");
    const double asked = processorTime(daemon->id());
    const test::Reply reply = client->fetch(row.text, path);
    const double time = processorTime(daemon->id()) - asked;
    const auto samples = test::readWave(path);
    const bool audible = std::any_of(samples.begin(), samples.end(),
                                     [](int sample) { return std::abs(sample) >= kAudible; });
    const double sound = static_cast<double>(samples.size()) / kFileRate;
    const long growth = peakMemory() - before;
    SCOPED_TRACE(row.what);
    EXPECT_EQ(reply.error, row.outcome == Outcome::refused ? test::kLimitsExceeded : "");
    EXPECT_EQ(samples.empty(), row.outcome == Outcome::refused);
    EXPECT_EQ(audible, row.outcome == Outcome::spoken);
    EXPECT_LE(sound, row.sound);
    // A piece of the most expensive characters, and the wave of the whole text.
    if (!test::kSlowBuild) {
      EXPECT_LE(growth, 40'000 + static_cast<long>(samples.size() / 256));
    }
    EXPECT_LE(time, (test::kSlowBuild ? 4 : 1) * row.time);
  }
  EXPECT_EQ(playToEnd({"on"}), 0U);
}

}  // namespace
