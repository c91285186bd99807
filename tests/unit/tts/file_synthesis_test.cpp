#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "platform/unique_fd.h"
#include "support/background.h"
#include "support/file_size_limit.h"
#include "support/flite_alone.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"
#include "tts/speech_engine.h"

namespace {

using qs_ns::qs_flite_tts_file;

constexpr std::size_t kHeaderBytes = 44;
const std::string kText = "The door is open.";

const std::string kHeavy = [] {
  std::string text;
  while (text.size() < 1000)
    text += kText + " ";
  return text;
}();

class FileSynthesis : public testing::Test {
 protected:
  static void SetUpTestSuite() { qs_ns::qs_flite_init(); }

  void SetUp() override {
    setenv("QUILLSPEAK_PROPERTIES", (folder / "properties").c_str(), 1);
    test::clearLog();
  }

  test::ScratchFolder folder;
  const std::string path = folder / "new.wav";
};

TEST_F(FileSynthesis, WritesTheWaveOverWhateverTheFileHeld) {
  test::writeFile(folder / "properties", "device.accessibility.qs_speed = 5\n");
  const std::vector<short> wave = test::fliteInPieces(kHeavy, 0.5F);
  const std::string bytes(reinterpret_cast<const char*>(wave.data()), 2 * wave.size());
  test::writeFile(path, std::string(kHeaderBytes + bytes.size() + 1000, 'x'));
  EXPECT_EQ(qs_flite_tts_file(kHeavy, path, 0), 0);
  const std::string file = test::readFile(path);
  ASSERT_GT(file.size(), kHeaderBytes);
  EXPECT_EQ(file[22], 1) << "channels";
  EXPECT_TRUE(file.substr(kHeaderBytes) == bytes);
  EXPECT_EQ(test::countLog("", LOG_ERR), 0);
}

TEST_F(FileSynthesis, WritesNothingButARegularFileAndLogsIt) {
  test::writeFile(folder / "target", "precious");
  std::filesystem::create_symlink(folder / "target", folder / "link");
  ASSERT_EQ(mkfifo((folder / "pipe without a reader").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  const platform::UniqueFd reader(
      open((folder / "pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string deep = folder.path();
  while (deep.size() < PATH_MAX)
    deep += "/.";
  for (const std::string& no : {folder / "link", folder / "pipe without a reader", folder / "pipe",
                                std::string("/dev/null"), folder / "target/x", folder.path(),
                                folder.path() + "/", deep + "/new"}) {
    EXPECT_EQ(qs_flite_tts_file("a", no, 0), 0);
    EXPECT_EQ(test::countLog("qs_flite_tts_file: cannot write ", LOG_ERR), 1) << no;
    test::clearLog();
  }
  EXPECT_EQ(test::readFile(folder / "target"), "precious");
  pollfd hungUp{reader.get(), POLLIN, 0};
  EXPECT_EQ(poll(&hungUp, 1, 0), 0) << "a writer came and went: some devices act on being opened";
}

TEST_F(FileSynthesis, FollowsNoLinkThatAStrangerPlantedOnTheWay) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a stranger's link";
  const std::string shared = folder / "shared";
  std::filesystem::create_directories(folder / "target/inner");
  std::filesystem::create_directory(shared);
  constexpr uid_t kStranger = 12345;
  const struct {
    mode_t mode;
    uid_t owner;  // of the link
    bool followed;
  } kRows[] = {{0777, kStranger, false},
               {01777, kStranger, false},
               {0775, kStranger, false},
               {0755, kStranger, true},
               {01777, 0, true}};
  for (const auto& row : kRows) {
    for (const std::string& target : {folder / "target", std::string("../target")}) {
      std::filesystem::remove(shared + "/link");
      std::filesystem::remove(folder / "target/inner/new.wav");
      std::filesystem::create_symlink(target, shared + "/link");
      ASSERT_EQ(lchown((shared + "/link").c_str(), row.owner, row.owner), 0);
      ASSERT_EQ(chmod(shared.c_str(), row.mode), 0);
      EXPECT_EQ(qs_flite_tts_file("a", shared + "//link/inner/new.wav", 0), 0);
      EXPECT_EQ(std::filesystem::exists(folder / "target/inner/new.wav"), row.followed)
          << std::oct << row.mode << " " << row.owner << " " << target;
    }
  }
  std::filesystem::create_symlink(shared + "/loop", shared + "/loop");
  EXPECT_EQ(qs_flite_tts_file("a", shared + "/loop/new.wav", 0), 0);
  EXPECT_EQ(test::countLog("Too many levels of symbolic links", LOG_ERR), 7);
}

TEST_F(FileSynthesis, LogsAFileThatCannotBeWrittenToItsEnd) {
  const rlim_t wholeFile = kHeaderBytes + 2 * test::fliteAlone(kText).size();
  // The disk is full at once, or with the very last sample.
  for (const rlim_t bytes : {rlim_t{1000}, wholeFile - 1}) {
    test::clearLog();
    const test::FileSizeLimit limit(bytes);
    EXPECT_EQ(qs_flite_tts_file(kText, path, 0), 0);
    EXPECT_EQ(test::countLog("File too large", LOG_ERR), 1) << bytes;
  }
}

// Neither in the first nor in the last sample of a piece, nor before the first chunk.
constexpr long kNoiseBeforeSpeech = 20000;
constexpr long kNoiseOfAChunk = 1000;

TEST_F(FileSynthesis, EndsBeforeFliteOrAtItsNextChunkWhereItIsStopped) {
  std::atomic<bool> stopped{true};
  test::noise().drawn = 0;
  EXPECT_EQ(qs_flite_tts_file(kText, path, 0, &stopped), -2);
  EXPECT_EQ(test::noise().drawn, 0);

  stopped = false;
  test::noise().then = [&] { stopped = true; };
  test::noise().left = kNoiseBeforeSpeech;
  EXPECT_EQ(qs_flite_tts_file(kHeavy, path, 0, &stopped), -2);
  EXPECT_LE(test::noise().drawn, kNoiseBeforeSpeech + kNoiseOfAChunk) << "more than a chunk later";
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(FileSynthesis, GivesWayToSpeechAndGoesOnWithoutATraceOfIt) {
  const std::vector<short> wave = test::fliteInPieces(kHeavy);
  const std::string bytes(reinterpret_cast<const char*>(wave.data()), 2 * wave.size());
  test::noise().then = [] { qs_ns::voiceMutex.beginSpeech(); };
  test::noise().drawn = 0;
  test::noise().left = kNoiseBeforeSpeech;
  test::Background file([&] { return qs_flite_tts_file(kHeavy, path, 0); });
  EXPECT_FALSE(file.endsWithoutSleep());
  EXPECT_LE(test::noise().drawn, kNoiseBeforeSpeech + kNoiseOfAChunk) << "more than a chunk later";
  qs_ns::voiceMutex.endSpeech();
  EXPECT_EQ(file.get(), 0);
  EXPECT_TRUE(test::readFile(path).substr(kHeaderBytes) == bytes);
}

}  // namespace
