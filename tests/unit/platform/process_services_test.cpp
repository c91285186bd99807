#include "platform/process_services.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
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
#include "support/file_size_limit.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

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
  EXPECT_EQ(restart_disconnect("quillspeak", 0), 0);

  sockaddr_un address{AF_UNIX, {}};
  (folder / "notify").copy(address.sun_path, sizeof address.sun_path - 1);
  setenv("NOTIFY_SOCKET", address.sun_path, 1);
  EXPECT_NE(restart_connect("daemon"), 0);

  const platform::UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(restart_connect("daemon"), 0);
  restart_ready();
  restart_alive();
  EXPECT_EQ(restart_disconnect("quillspeak", 0), 0);
  EXPECT_EQ(restart_disconnect("quillspeak", 0), 0);
  for (const char* expected :
       {"STATUS=Starting", "READY=1\nSTATUS=", "WATCHDOG=1", "STOPPING=1", "STOPPING=1"}) {
    char message[64] = {};
    EXPECT_GT(recv(manager.get(), message, sizeof message - 1, 0), 0);
    EXPECT_STREQ(message, expected);
  }
  unsetenv("NOTIFY_SOCKET");
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
