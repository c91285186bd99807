#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <ucontext.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/crash_report.h"
#include "support/child_process.h"
#include "support/scratch_folder.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

const struct {
  const char* kind;
  int signal;
  const char* firstLine;  // null: not read here
  const char* part;       // a function of the stack, or the thread's name
  bool sanitizersOwn;     // reported by a sanitizer instead
} kCrashes[] = {
    {"jump", SIGSEGV, "SIGSEGV at address 0x8 in thread", "callNowhere", true},
    {"ill", SIGILL, "SIGILL from process", "raiseIllegal", false},
    {"overflow", SIGSEGV, "SIGSEGV at address", "recurse", true},
    {"overflow on a thread", SIGSEGV, "SIGSEGV at address", "\"overflowing\"", true},
    {"broken heap", SIGABRT, "SIGABRT from process", "breakHeap", true},
    // Without the library, so that syslog is the C library's own, whose lock the crash leaves
    // taken.
    {"inside syslog", SIGSEGV, nullptr, nullptr, true},
    {"inside the report", SIGABRT, nullptr, nullptr, true},
};

TEST(CrashHandler, LogsTheStackAndDiesOfTheFirstSignalInTime) {
  for (const auto& crash : kCrashes) {
    if (kSanitized && crash.sanitizersOwn) continue;
    SCOPED_TRACE(crash.kind);
    const test::ScratchFolder folder;
    test::Environment environment;
    if (crash.firstLine != nullptr)
      environment = {test::preloadEntry(), "QS_TEST_SYSLOG=" + folder / "log"};
    test::ChildProcess subject(QS_CRASH_SUBJECT, {crash.kind}, environment);
    EXPECT_TRUE(subject.readByte());
    const auto crashed = std::chrono::steady_clock::now();
    const int status = subject.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - crashed, std::chrono::seconds(2));
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), crash.signal);
    if (crash.firstLine == nullptr) continue;
    const std::string lines = test::readFile(folder / "log");
    for (const std::string& part : {std::string("LOG_CRIT crash: ") + crash.firstLine,
                                    std::string(crash.part), std::string("crash_subject.cpp:")})
      EXPECT_NE(lines.find(part), std::string::npos) << part << " in\n" << lines;
    EXPECT_EQ(lines.find("onCrash"), std::string::npos) << lines;
  }
}

TEST(CrashReport, ReachesSyslogsSocketPastTheCLibrary) {
  const test::ScratchFolder folder;
  sockaddr_un address{AF_UNIX, {}};
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
  for (const char* const part : {"crash: places in the program: ", "crash_handler_test.cpp:"})
    EXPECT_NE(received.find(part), std::string::npos) << received;
}

}  // namespace
