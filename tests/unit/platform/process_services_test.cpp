#include "platform/process_services.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/run_directory.h"
#include "platform/unique_fd.h"
#include "support/file_size_limit.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

class PidRegistration : public testing::Test {
 public:
  PidRegistration() { setenv("QUILLSPEAK_RUN_DIR", runFolder.c_str(), 1); }
  ~PidRegistration() override {
    unlink_varrunpid("daemon");
    unsetenv("QUILLSPEAK_RUN_DIR");
  }

 protected:
  test::ScratchFolder folder;
  const std::string runFolder = folder / "new/run";
  const std::string file = runFolder + "/daemon.pid";
};

TEST_F(PidRegistration, HoldsUntilItIsTakenBack) {
  ASSERT_EQ(create_varrunpid("daemon"), 0);
  EXPECT_EQ(create_varrunpid("daemon"), 0);
  EXPECT_EQ(test::readFile(file), std::to_string(getpid()));
  struct stat made {};
  ASSERT_EQ(stat(runFolder.c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 0777U, 0755U);

  unlink_varrunpid("daemon");
  unlink_varrunpid("daemon");
  unlink_varrunpid("another");
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(create_varrunpid("daemon"), 0);
}

TEST_F(PidRegistration, IsRefusedWhileAnotherHoldsItAndFreeAfterItsCrash) {
  std::filesystem::create_directories(runFolder);
  test::writeFile(file, "4711");
  {
    // As held by another process: a lock belongs to the descriptor.
    const platform::UniqueFd other(open(file.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_NE(create_varrunpid("daemon"), 0);
    EXPECT_EQ(create_varrunpid("namesake"), 0);
    unlink_varrunpid("daemon");
    unlink_varrunpid("namesake");
    EXPECT_EQ(test::readFile(file), "4711");
  }
  EXPECT_EQ(create_varrunpid("daemon"), 0);
  EXPECT_EQ(test::readFile(file), std::to_string(getpid()));
}

TEST_F(PidRegistration, HoldsAlsoWhereTheDiskIsFull) {
  {
    const test::FileSizeLimit full(0);
    EXPECT_EQ(create_varrunpid("daemon"), 0);
  }
  const platform::UniqueFd other(open(file.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(other);
  EXPECT_NE(flock(other.get(), LOCK_EX | LOCK_NB), 0);
}

TEST_F(PidRegistration, StartsWithAWarningWhereThereIsNoFolder) {
  test::writeFile(folder / "new", "in the way");
  test::clearLog();
  EXPECT_EQ(create_varrunpid("daemon"), 0);
  EXPECT_EQ(test::countLog("new/run", LOG_WARNING), 1);
}

TEST(PrivateFolder, IsMadeForItsOwnerAndRefusedWhereItIsNotHisAlone) {
  const test::ScratchFolder folder;
  const std::string wanted = folder / "private";
  EXPECT_EQ(platform::privateFolder(wanted), wanted);
  struct stat made {};
  ASSERT_EQ(stat(wanted.c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 0777U, 0700U);
  EXPECT_EQ(platform::privateFolder(wanted), wanted);

  ASSERT_EQ(chmod(wanted.c_str(), 0770), 0);
  EXPECT_EQ(platform::privateFolder(wanted), "");

  const std::string link = folder / "link";
  ASSERT_EQ(mkdir((folder / "target").c_str(), 0700), 0);
  std::filesystem::create_directory_symlink(folder / "target", link);
  EXPECT_EQ(platform::privateFolder(link), "");

  // The root folder is another's to everybody but root, who can give one away.
  const std::string foreign = geteuid() == 0 ? folder / "foreign" : "/";
  if (geteuid() == 0) {
    ASSERT_EQ(mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(chown(foreign.c_str(), 4711, 4711), 0);
  }
  EXPECT_EQ(platform::privateFolder(foreign), "");
}

TEST(RestartManager, IsToldOfStartAndEndWhereThereIsOne) {
  const test::ScratchFolder folder;
  EXPECT_EQ(restart_connect("daemon"), 0);
  EXPECT_EQ(restart_disconnect("quillspeak", 0), 0);

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (folder / "notify").copy(address.sun_path, sizeof address.sun_path - 1);
  setenv("NOTIFY_SOCKET", address.sun_path, 1);
  EXPECT_NE(restart_connect("daemon"), 0);

  const int manager = socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(restart_connect("daemon"), 0);
  EXPECT_EQ(restart_disconnect("quillspeak", 0), 0);
  EXPECT_EQ(restart_disconnect("quillspeak", 0), 0);
  for (const char* expected : {"READY=1", "STOPPING=1", "STOPPING=1"}) {
    char message[64] = {};
    ASSERT_GT(recv(manager, message, sizeof message - 1, MSG_DONTWAIT), 0);
    EXPECT_STREQ(message, expected);
  }
  close(manager);
  unsetenv("NOTIFY_SOCKET");
}

TEST(TraceSettings, FillTheRecordAndSetTheLogMask) {
  struct Case {
    const char* text;
    TraceValues expected;
  };
  const Case cases[] = {
      {nullptr, {6, 0, 0, 0, 0}},
      {"", {6, 0, 0, 0, 0}},
      {"baseseverity = 7\npersistent=1\ntracemask=0x1F\noption = 0XaB\ndata = -3 # low\n",
       {7, 1, 31, 171, -3}},
      {"baseseverity = 8\ntracemask = 0xFFFFFFFF\ndata = 0x100000000", {7, 0, -1, 0, 0}},
      {"baseseverity = -1", {0, 0, 0, 0, 0}},
      {"baseseverity = 99999999999999999999\ndata = -99999999999999999999", {7, 0, 0, 0, 0}},
      {"baseseverity = loud\ndata = 5 apples\noption = 0x\npersistent = 0x-1", {6, 0, 0, 0, 0}},
  };
  const test::ScratchFolder folder;
  const std::string file = folder / "trace.conf";
  setenv("QUILLSPEAK_TRACE", file.c_str(), 1);
  for (const Case& setting : cases) {
    if (setting.text != nullptr) test::writeFile(file, setting.text);
    TraceValues values{-9, -9, -9, -9, -9};
    settrcvalues("quillspeak", &values);
    const auto& expected = setting.expected;
    EXPECT_EQ(values.baseseverity, expected.baseseverity);
    EXPECT_EQ(values.persistent, expected.persistent);
    EXPECT_EQ(values.tracemask, expected.tracemask);
    EXPECT_EQ(values.option, expected.option);
    EXPECT_EQ(values.data, expected.data);
    EXPECT_EQ(setlogmask(0), LOG_UPTO(expected.baseseverity));
  }
  unsetenv("QUILLSPEAK_TRACE");
  setlogmask(LOG_UPTO(LOG_DEBUG));
}

}  // namespace
