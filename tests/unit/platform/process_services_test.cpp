#include "platform/process_services.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/run_directory.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

/// A child that runs `work` and then, until it is killed, nothing.
class Instance {
 public:
  explicit Instance(const std::function<int()>& work) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    process = fork();
    if (process == 0) {
      const auto outcome = static_cast<unsigned char>(work());
      if (write(ends[1], &outcome, 1) != 1) _exit(1);
      while (true)
        pause();
    }
    unsigned char reported = 255;
    EXPECT_EQ(read(ends[0], &reported, 1), 1);
    result = reported;
    close(ends[0]);
    close(ends[1]);
  }
  ~Instance() {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  pid_t process = -1;
  int result = -1;
};

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

TEST_F(PidRegistration, IsRefusedWhileAnotherProcessHoldsItAndFreeAfterItsCrash) {
  {
    const Instance other([] { return create_varrunpid("daemon"); });
    ASSERT_EQ(other.result, 0);
    EXPECT_NE(create_varrunpid("daemon"), 0);
    EXPECT_EQ(create_varrunpid("namesake"), 0);
    unlink_varrunpid("daemon");
    unlink_varrunpid("namesake");
    EXPECT_EQ(test::readFile(file), std::to_string(other.process));
  }
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(create_varrunpid("daemon"), 0);
  EXPECT_EQ(test::readFile(file), std::to_string(getpid()));
}

TEST_F(PidRegistration, LeavesTheFileOfASuccessorAlone) {
  ASSERT_EQ(create_varrunpid("daemon"), 0);
  std::filesystem::remove(file);
  test::writeFile(file, "4711");
  unlink_varrunpid("daemon");
  EXPECT_EQ(test::readFile(file), "4711");
}

TEST_F(PidRegistration, IsNeverHeldByTwoHoweverTheyComeAndGo) {
  struct Shared {
    std::atomic<int> holders{0};
    std::atomic<int> clashes{0};
  };
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto& shared = *new (memory) Shared;
  pid_t processes[4];
  for (pid_t& process : processes) {
    process = fork();
    if (process != 0) continue;
    for (int mine = 0; mine < 50;) {
      if (create_varrunpid("daemon") != 0) continue;
      if (++shared.holders != 1) ++shared.clashes;
      ++mine;
      sched_yield();
      --shared.holders;
      unlink_varrunpid("daemon");
    }
    _exit(0);
  }
  for (const pid_t process : processes)
    waitpid(process, nullptr, 0);
  EXPECT_EQ(shared.clashes, 0);
  munmap(memory, sizeof(Shared));
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

TEST(ThreadName, IsGivenToAnyThreadOfTheProcessByItsKernelId) {
  std::promise<pid_t> id;
  std::promise<void> named;
  std::thread other([&] {
    id.set_value(gettid());
    named.get_future().wait();
  });
  pthread_name_np(id.get_future().get(), "QS_MessageQueueThread");
  char name[16] = {};
  pthread_getname_np(other.native_handle(), name, sizeof name);
  EXPECT_STREQ(name, "QS_MessageQueue");
  named.set_value();
  other.join();

  char before[16] = {};
  pthread_getname_np(pthread_self(), before, sizeof before);
  pthread_name_np(gettid(), "quillspeak");
  pthread_getname_np(pthread_self(), name, sizeof name);
  EXPECT_STREQ(name, "quillspeak");
  pthread_name_np(gettid(), before);
  pthread_name_np(1, "not ours");
}

}  // namespace
