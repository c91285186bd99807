#include <algorithm>
#include <chrono>
#include <csignal>

#include <gtest/gtest.h>

#include "daemon/fixture.h"

namespace {

using namespace std::chrono_literals;
using test::Reply;
using Speech = test::DaemonTest;
using Samples = std::vector<std::int16_t>;

constexpr int kRate = 48000;
constexpr int kFrame = 480;

int peak(const Samples& samples) {
  const auto louder = [](int a, int b) { return std::abs(a) < std::abs(b); };
  return samples.empty() ? 0 : std::abs(*std::max_element(samples.begin(), samples.end(), louder));
}

TEST_F(Speech, ATextIsHeardAndReportedAsItWasSent) {
  start();
  const Reply reply = client->play({"Hello", "world"}, 0, -8, 77);
  ASSERT_NE(reply.value, 0U);
  const auto result = client->awaitResult(reply.value);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->texts, (std::vector<std::string>{"Hello", "world"}));
  EXPECT_EQ(result->params, 4294967288U);
  EXPECT_EQ(result->type, 77U);
  EXPECT_EQ(result->resultCode, 0U);
  EXPECT_GT(peak(recording()), 2000);
  EXPECT_EQ(client->results().size(), 1U);
}

TEST_F(Speech, AllBitsOfFlagsComeBack) {
  start();
  const Reply reply = client->play({}, -1);
  const auto result = client->awaitResult(reply.value);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->flags, 4294967295U);
  EXPECT_TRUE(result->texts.empty());
}

TEST_F(Speech, AStopEndsThePlayingTextSoon) {
  start();
  const std::uint64_t handle = client->play({test::longText().substr(0, 2000)}).value;
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  ASSERT_TRUE(
      test::waitForFile(folder / "sound.wav", [this] { return recording().size() >= kRate / 2; }));
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(client->stop(handle).value, 0U);
  const auto result = client->awaitResult(handle);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 2s : 1s);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->resultCode, 1U);
  EXPECT_LT(recording().size(), static_cast<std::size_t>(5 * kRate));
  EXPECT_EQ(client->stop(handle).value, 0U) << "a handle that is gone";
  EXPECT_EQ(playToEnd({"on"}), 0U);
}

TEST_F(Speech, ANewerTextDisplacesAndAPoliteOneWaits) {
  start();
  const std::uint64_t first = client->play({test::longText()}).value;
  // One that is still queued would be displaced without a result.
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  const std::uint64_t second = client->play({"second"}).value;
  const std::uint64_t polite = client->play({"third"}, 1).value;
  ASSERT_TRUE(client->awaitResult(polite).has_value());
  const auto& results = client->results();
  ASSERT_EQ(results.size(), 3U);
  EXPECT_EQ(results[0].handle, first);
  EXPECT_EQ(results[0].resultCode, 1U);
  EXPECT_EQ(results[1].handle, second);
  EXPECT_EQ(results[1].resultCode, 0U);
  EXPECT_EQ(results[2].handle, polite);
}

TEST_F(Speech, TheAlertFollowsTheText) {
  start();
  const Samples alert(1600, 8000);
  test::writeFile(folder / "files/error_mono.raw",
                  std::string(reinterpret_cast<const char*>(alert.data()), alert.size() * 2));
  EXPECT_EQ(playToEnd({}, 4), 0U);
  const Samples heard = recording();
  // Ten frames of sound, and one of silence since the end of the file shows only then.
  EXPECT_EQ(heard.size(), static_cast<std::size_t>(11 * kFrame));
  EXPECT_NEAR(peak(heard), 4500, 700) << "half volume, with the filter's overshoot at the edges";
}

TEST_F(Speech, SilenceModeLosesNoneOfItsTexts) {
  start();
  EXPECT_EQ(playToEnd({"one two", "three four"}, 8), 0U);
  const std::size_t silent = recording().size();
  // From the cache, both from their first sample to their last.
  EXPECT_EQ(playToEnd({"one two", "three four"}, 0), 0U);
  const std::size_t plain = recording().size() - silent;
  EXPECT_GE(silent, plain);
  EXPECT_EQ(daemon->countLog("Marking WriteTTSThread to send silence"), 2);
}

TEST_F(Speech, ARepeatedTextComesFromTheCacheUntilAReload) {
  start();
  EXPECT_EQ(playToEnd({"once more"}), 0U);
  EXPECT_EQ(playToEnd({"once more"}), 0U);
  EXPECT_EQ(daemon->countLog("Dynamic text match found"), 1);
  EXPECT_EQ(client->reload(0).error, "");
  EXPECT_EQ(playToEnd({"once more"}), 0U);
  EXPECT_EQ(daemon->countLog("Dynamic text match found"), 1);
}

TEST_F(Speech, VolumeActsFromTheNextRequest) {
  start();
  EXPECT_EQ(playToEnd({"volume"}), 0U);
  const int before = peak(recording());
  EXPECT_EQ(client->setVolume(-5).error, "");
  const std::size_t start = recording().size();
  EXPECT_EQ(playToEnd({"volume"}), 0U);
  const Samples all = recording();
  EXPECT_NEAR(peak(Samples(all.begin() + static_cast<std::ptrdiff_t>(start), all.end())),
              before * 71.0 / 502.0, 20)
      << "the ramp settles 10 below its target, so 502 before and 71 now";
}

TEST_F(Speech, AConversionIsAnsweredWhenItsFileIsThere) {
  start();
  const std::string path = folder / "spoken.wav";
  const Reply reply = client->fetch("write this down", path);
  EXPECT_EQ(reply.error, "");
  EXPECT_EQ(reply.value, 0U);
  const std::string file = test::readFile(path);
  EXPECT_EQ(file.substr(0, 4), "RIFF");
  EXPECT_GT(file.size(), 16000U);
  EXPECT_EQ(client->fetch("nowhere", "").value, 0U);
  EXPECT_EQ(client->fetch("into a folder", folder.path()).value, 0U);
  EXPECT_EQ(daemon->countLog("LOG_ERR "), 1) << "the one that could not be written";
}

TEST_F(Speech, ConversionsOverlapAndEachGetsItsOwnAnswer) {
  start();
  for (int i = 0; i < 3; ++i) {
    client->fetchLater("number " + std::to_string(i), folder / ("n" + std::to_string(i)));
  }
  EXPECT_EQ(playToEnd({"meanwhile"}), 0U);
  const auto answers = client->awaitFetched(3);
  ASSERT_EQ(answers.size(), 3U);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(answers[static_cast<std::size_t>(i)].error, "");
    EXPECT_TRUE(std::filesystem::exists(folder / ("n" + std::to_string(i))));
  }
}

}  // namespace
