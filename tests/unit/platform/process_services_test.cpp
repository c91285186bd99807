#include "platform/process_services.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "platform/run_directory.h"
#include "platform/unique_fd.h"
#include "platform/watchdog.h"
#include "support/file_size_limit.h"
#include "support/notify_socket.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"
#include "support/watched_clock.h"

namespace {

namespace fs = std::filesystem;

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

TEST_F(PidRegistration, IsRefusedWhileAnotherHoldsItAndFreeAfterItsCrashUntilItIsTakenBack) {
  EXPECT_EQ(create_varrunpid("namesake"), 0);
  EXPECT_EQ(fs::status(runFolder).permissions(), fs::perms{0755});
  test::writeFile(file, "4711");
  {
    // As held by another process: a lock belongs to the descriptor.
    const platform::UniqueFd other(open(file.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_NE(create_varrunpid("daemon"), 0);
    unlink_varrunpid("daemon");
    unlink_varrunpid("namesake");
    EXPECT_EQ(test::readFile(file), "4711");
  }
  EXPECT_EQ(create_varrunpid("daemon"), 0);
  EXPECT_EQ(create_varrunpid("daemon"), 0);
  EXPECT_EQ(test::readFile(file), std::to_string(getpid()));
  unlink_varrunpid("daemon");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(create_varrunpid("daemon"), 0);
}

TEST_F(PidRegistration, IsNoReasonNotToStartWhereTheDiskIsFullOrThereIsNoFolder) {
  {
    const test::FileSizeLimit full(0);
    EXPECT_EQ(create_varrunpid("daemon"), 0);
  }
  {
    const platform::UniqueFd other(open(file.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(other);
    EXPECT_NE(flock(other.get(), LOCK_EX | LOCK_NB), 0) << "it is held all the same";
  }
  unlink_varrunpid("daemon");
  fs::remove_all(folder / "new");
  test::writeFile(folder / "new", "in the way");
  test::clearLog();
  EXPECT_EQ(create_varrunpid("another"), 0);
  EXPECT_EQ(test::countLog("new/run", LOG_WARNING), 1);
}

TEST(PrivateFolder, IsMadeForItsOwnerAndRefusedWhereItIsNotHisAlone) {
  const test::ScratchFolder folder;
  const std::string wanted = folder / "private";
  const std::string link = folder / "link";
  fs::create_directory_symlink(wanted, link);
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(platform::privateFolder(wanted), wanted);
  EXPECT_EQ(fs::status(wanted).permissions(), fs::perms{0700});
  EXPECT_EQ(platform::privateFolder(link), "");
  fs::permissions(wanted, fs::perms{0770});
  EXPECT_EQ(platform::privateFolder(wanted), "");

  // The root folder is another's to everybody but root, who can give one away.
  std::string foreign = "/";
  if (geteuid() == 0) {
    foreign = folder / "foreign";
    ASSERT_EQ(platform::privateFolder(foreign), foreign);
    ASSERT_EQ(chown(foreign.c_str(), 4711, 4711), 0);
  }
  EXPECT_EQ(platform::privateFolder(foreign), "");
}

TEST(RestartManager, IsToldOfStartAndEndWhereThereIsOne) {
  const test::ScratchFolder folder;
  EXPECT_EQ(restart_connect("daemon"), 0);
  setenv("NOTIFY_SOCKET", (folder / "notify").c_str(), 1);
  EXPECT_NE(restart_connect("daemon"), 0);
  const test::NotifySocket manager(folder / "notify");
  EXPECT_EQ(restart_connect("daemon"), 0);
  EXPECT_EQ(manager.next(), "STATUS=Starting");
  EXPECT_EQ(restart_disconnect("quillspeak", 0), 0);
  EXPECT_EQ(manager.next(), "STOPPING=1");
  unsetenv("NOTIFY_SOCKET");
}

// The loop that looks at the timer would not sleep any more were its time not taken.
TEST(Watchdog, IsFedOnceEachTimeThatItIsDue) {
  const test::WatchedClock clock(std::chrono::milliseconds(100));
  const platform::Watchdog watchdog;
  watchdog.feedWhenDue();
  EXPECT_EQ(clock.manager.take(""), 0) << "before its time";
  pollfd due{watchdog.descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&due, 1, 10'000), 1);
  watchdog.feedWhenDue();
  watchdog.feedWhenDue();
  EXPECT_EQ(clock.manager.take("WATCHDOG=1"), 1);
}

TEST(TraceSettings, FillTheRecordAndSetTheLogMask) {
  using Values = std::array<std::int32_t, 5>;
  const std::pair<const char*, Values> cases[] = {
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
  setenv("QUILLSPEAK_TRACE", (folder / "trace.conf").c_str(), 1);
  for (const auto& [text, expected] : cases) {
    if (text != nullptr) test::writeFile(folder / "trace.conf", text);
    TraceValues read{-9, -9, -9, -9, -9};
    settrcvalues("quillspeak", &read);
    EXPECT_EQ((Values{read.baseseverity, read.persistent, read.tracemask, read.option, read.data}),
              expected);
    EXPECT_EQ(setlogmask(0), LOG_UPTO(expected[0]));
  }
  unsetenv("QUILLSPEAK_TRACE");
  setlogmask(LOG_UPTO(LOG_DEBUG));
}

}  // namespace
