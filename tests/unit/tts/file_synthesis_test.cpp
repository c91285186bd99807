#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "engine_fakes.h"
#include "support/syslog_capture.h"
#include "tts/speech_engine.h"

namespace {

using namespace qs_ns;
namespace fs = std::filesystem;
using test::Samples;

const std::string kText = "The door is open.";

std::string contents(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void write(const fs::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

std::string bytes(std::uint32_t number, int count) {
  std::string text;
  for (; count > 0; --count, number >>= 8)
    text += static_cast<char>(number & 0xFF);
  return text;
}

std::string riffOf(const Samples& samples) {
  const auto size = static_cast<std::uint32_t>(samples.size() * sizeof(short));
  std::string file = "RIFF" + bytes(36 + size, 4) + "WAVEfmt " + bytes(16, 4) + bytes(1, 2) +
                     bytes(1, 2) + bytes(16000, 4) + bytes(32000, 4) + bytes(2, 2) + bytes(16, 2) +
                     "data" + bytes(size, 4);
  for (const short sample : samples)
    file += bytes(static_cast<std::uint16_t>(sample), 2);
  return file;
}

class FileSynthesis : public testing::Test {
 protected:
  static void SetUpTestSuite() { qs_flite_init(); }

  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "file_synthesis_XXXXXX").string();
    folder = ::mkdtemp(name.data());
    test::properties() = {};
    test::clearLog();
  }
  void TearDown() override {
    fs::remove_all(folder);
    test::noise().left = -1;
    test::noise().stop = false;
  }

  int synthesise(const fs::path& path) { return qs_flite_tts_file(kText, path.string(), 0); }

  fs::path folder;
};

TEST_F(FileSynthesis, WritesTheWaveAsARiffFile) {
  const fs::path path = folder / "new.wav";
  EXPECT_EQ(synthesise(path), 0);
  EXPECT_EQ(contents(path), riffOf(test::fliteAlone(kText)));

  test::properties().integers["device.accessibility.qs_speed"] = 5;
  write(path, std::string(200000, 'x'));
  EXPECT_EQ(synthesise(path), 0);
  EXPECT_EQ(contents(path), riffOf(test::fliteAlone(kText, 0.5F))) << "the old file shows through";

  std::string heavy;
  for (int i = 0; i < 12; ++i)
    heavy += kText + " ";
  const Wave streamed = qs_flite_tts_stream(heavy.c_str(), nullptr, nullptr, true);
  EXPECT_EQ(qs_flite_tts_file(heavy, path, 0), 0);
  EXPECT_EQ(contents(path), riffOf(test::samplesOf(streamed.get())));
  EXPECT_EQ(test::countLog("", LOG_ERR), 0);
}

TEST_F(FileSynthesis, SynthesisesWithoutWritingWhereThePathIsEmpty) {
  test::noise().drawn = 0;
  EXPECT_EQ(synthesise(""), 0);
  EXPECT_GT(test::noise().drawn, 0);
  EXPECT_EQ(test::countLog("", LOG_ERR), 0);
}

TEST_F(FileSynthesis, WritesNothingButARegularFileAndLogsIt) {
  write(folder / "target", "precious");
  fs::create_symlink(folder / "target", folder / "link");
  fs::create_symlink(folder / "nowhere", folder / "dangling");
  fs::create_directory(folder / "folder");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo((folder / "read").c_str(), 0600), 0);
  const std::fstream reader(folder / "read", std::ios::in | std::ios::out);
  const std::pair<fs::path, const char*> rows[] = {
      {folder / "link", "Too many levels of symbolic links"},
      {folder / "dangling", "Too many levels of symbolic links"},
      {folder / "folder", "Is a directory"},
      {folder / "pipe", "No such device or address"},
      {folder / "read", "Operation not supported"},
      {"/dev/null", "Operation not supported"},
      {folder / "missing" / "new.wav", "No such file or directory"}};
  for (const auto& [path, reason] : rows) {
    SCOPED_TRACE(path);
    test::clearLog();
    EXPECT_EQ(synthesise(path), 0);
    const std::string message = "qs_flite_tts_file: cannot write " + path.string() + ": " + reason;
    EXPECT_EQ(test::countLog(message, LOG_ERR), 1);
  }
  EXPECT_EQ(contents(folder / "target"), "precious");
  EXPECT_FALSE(fs::exists(folder / "nowhere"));
}

TEST_F(FileSynthesis, LogsAFileThatCannotBeWrittenToItsEnd) {
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlim_t wholeFile = riffOf(test::fliteAlone(kText)).size();
  // The disk is full at once, or with the very last sample.
  for (const rlim_t limit : {rlim_t{1000}, wholeFile - 1}) {
    test::clearLog();
    const rlimit small = {limit, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = synthesise(folder / "new.wav");
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(test::countLog("File too large", LOG_ERR), 1) << limit;
  }
  std::signal(SIGXFSZ, previous);
}

TEST_F(FileSynthesis, EndsAtItsNextChunkWhereItIsStopped) {
  constexpr long kNoiseBeforeStop = 20000;
  test::noise().drawn = 0;
  test::noise().left = kNoiseBeforeStop;
  std::string heavy;
  while (heavy.size() < 4000)
    heavy += kText + " ";
  EXPECT_EQ(qs_flite_tts_file(heavy, folder / "new.wav", 0, &test::noise().stop), -2);
  EXPECT_LE(test::noise().drawn, kNoiseBeforeStop + 1000) << "more than a chunk later";
  EXPECT_FALSE(fs::exists(folder / "new.wav"));
}

TEST_F(FileSynthesis, EndsWithoutFliteWhereItIsStoppedWhileItWaitsForTheVoice) {
  std::atomic<bool> stop{false};
  test::noise().drawn = 0;
  std::future<int> result;
  {
    const platform::MutexLock lock(voiceMutex);
    result = std::async(std::launch::async,
                        [&] { return qs_flite_tts_file(kText, folder / "new.wav", 0, &stop); });
    stop = true;
  }
  EXPECT_EQ(result.get(), -2);
  EXPECT_EQ(test::noise().drawn, 0);
  EXPECT_FALSE(fs::exists(folder / "new.wav"));
}

}  // namespace
