#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "platform/crash_report.h"
#include "support/child_process.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

using std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct Crash {
  const char* kind;
  int signal;
  const char* firstLine;
  const char* frame;   // of the stack, with its file
  bool sanitizersOwn;  // reported by a sanitizer instead
};

std::ostream& operator<<(std::ostream& out, const Crash& crash) {
  return out << crash.kind;
}

// The wait status of a program that crashed as `kind` says, which it did within the time limit.
int crash(const std::string& kind, const test::Environment& environment) {
  test::ChildProcess subject(QS_CRASH_SUBJECT, {kind}, environment);
  EXPECT_TRUE(subject.readByte());
  const auto crashed = steady_clock::now();
  const int status = subject.wait();
  EXPECT_LT(steady_clock::now() - crashed, std::chrono::seconds(2));
  return status;
}

class CrashSignal : public testing::TestWithParam<Crash> {};

TEST_P(CrashSignal, LogsTheStackAndDiesOfTheSignal) {
  if (kSanitized && GetParam().sanitizersOwn) GTEST_SKIP() << "reported by the sanitizer";
  const test::ScratchFolder folder;
  const std::string log = folder / "log";
  const int status = crash(GetParam().kind, {test::preloadEntry(), "QS_TEST_SYSLOG=" + log});
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), GetParam().signal);
  const std::string lines = test::readFile(log);
  EXPECT_NE(lines.find(std::string("LOG_CRIT crash: ") + GetParam().firstLine), std::string::npos)
      << lines;
  EXPECT_NE(lines.find(GetParam().frame), std::string::npos) << lines;
  EXPECT_NE(lines.find("crash_subject.cpp:"), std::string::npos) << lines;
  EXPECT_EQ(lines.find("onCrash"), std::string::npos) << lines;
}

INSTANTIATE_TEST_SUITE_P(
    CrashHandler, CrashSignal,
    testing::Values(Crash{"segv", SIGSEGV, "SIGSEGV at address 0x8 in thread", "writeToNowhere",
                          true},
                    Crash{"jump", SIGSEGV, "SIGSEGV at address 0x8 in thread", "callNowhere", true},
                    Crash{"ill", SIGILL, "SIGILL from process", "raiseIllegal", false},
                    Crash{"overflow", SIGSEGV, "SIGSEGV at address", "recurse", true},
                    Crash{"overflow on a thread", SIGSEGV, "SIGSEGV at address", "recurse", true},
                    Crash{"broken heap", SIGABRT, "SIGABRT from process", "breakHeap", true}),
    [](const testing::TestParamInfo<Crash>& instance) {
      std::string name = instance.param.kind;
      std::replace(name.begin(), name.end(), ' ', '_');
      return name;
    });

// Without the library, so that syslog is the C library's own, whose lock the crash leaves taken.
TEST(CrashHandler, DiesInTimeWhenTheCrashLeavesSyslogLocked) {
  if (kSanitized) GTEST_SKIP() << "reported by the sanitizer";
  const int status = crash("inside syslog", {});
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGSEGV);
}

TEST(CrashHandler, DiesOfTheFirstSignalWhenTheReportCrashesToo) {
  if (kSanitized) GTEST_SKIP() << "the second signal is the sanitizer's";
  const int status = crash("inside the report", {});
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

TEST(CrashReport, ReachesSyslogsSocketPastTheCLibrary) {
  const test::ScratchFolder folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (folder / "log").copy(address.sun_path, sizeof address.sun_path - 1);
  const int daemon = socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_EQ(bind(daemon, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  auto report = std::make_unique<platform::CrashReport>();
  ASSERT_TRUE(report->prepare());
  ucontext_t context;
  ASSERT_EQ(getcontext(&context), 0);
  siginfo_t info{};
  info.si_code = SI_USER;
  info.si_pid = 4711;
  report->describe(SIGBUS, info, &context);
  report->logDirectly(address.sun_path);
  report->logDirectly(address.sun_path);  // nothing is left

  std::string received;
  char message[700];
  ssize_t size = 0;
  while ((size = recv(daemon, message, sizeof message, MSG_DONTWAIT)) > 0)
    received += std::string(message, static_cast<std::size_t>(size)) + "\n";
  close(daemon);
  const std::string first = "<" + std::to_string(LOG_LOCAL0 | LOG_CRIT) + ">quillspeak[" +
                            std::to_string(getpid()) +
                            "]: crash: SIGBUS from process 4711 in thread ";
  EXPECT_TRUE(received.starts_with(first)) << received;
  EXPECT_EQ(received.find("crash: SIGBUS", first.size() + 10), std::string::npos) << received;
  EXPECT_NE(received.find("crash_handler_test.cpp:"), std::string::npos) << received;
}

}  // namespace
