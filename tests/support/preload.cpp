// Loaded into a program under test with LD_PRELOAD. Variables switch its parts on:
//   QS_TEST_SYSLOG  a file that gets a line for each message that passes the log mask,
//                   "<LEVEL> <text>" with blanks for newlines, and one for openlog:
//                   "openlog ident=I option=0xO facility=0xF"
//   QS_TEST_FILES   a folder in which the files of fixed paths are looked for, by their names alone
//                   and in which a file "no-threads" makes every start of a thread fail; where it
//                   has a pipe "hold-NAME", who opens a file NAME waits until the pipe is opened
//   QS_TEST_NOISE   rand, from which the voice draws its noise, always gives the same number

// The fortified headers define what is defined here.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/syslog_calls.h"

namespace {

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// One write for one line, so that lines of several threads and processes never mix.
void appendLine(const char* start, char* text) {
  const std::size_t length = std::strlen(text);
  std::replace(text, text + length, '\n', ' ');
  char newline = '\n';
  const iovec parts[] = {
      {const_cast<char*>(start), std::strlen(start)}, {text, length}, {&newline, 1}};
  // Past our own `open`.
  const auto file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, std::getenv("QS_TEST_SYSLOG"),
                                             O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  [[maybe_unused]] const ssize_t count = writev(file, parts, 3);
  close(file);
}

const char* files() {
  static const char* const folder = std::getenv("QS_TEST_FILES");
  return folder;
}

/// Where the file at `place` and `path` behind it really is, written to `moved` if not at `path`.
const char* redirected(const char* place, const char* path, char (&moved)[PATH_MAX]) {
  std::snprintf(moved, sizeof moved, "%s%s", place, path);
  for (const char* const fixed :
       {"/etc/addenda.lex", "/usr/mbin/data/rt/error_mono.raw", "/tmp/test.rwb", "/tmp/test.wav"}) {
    if (files() == nullptr || std::strcmp(moved, fixed) != 0) continue;
    std::snprintf(moved, sizeof moved, "%s%s", files(), std::strrchr(fixed, '/'));
    return moved;
  }
  return path;
}

// A storage that hangs.
void waitWhereHeld(const char* path) {
  const char* const slash = std::strrchr(path, '/');
  char pipe[PATH_MAX];
  std::snprintf(pipe, sizeof pipe, "%s/hold-%s", files() != nullptr ? files() : "",
                slash != nullptr ? slash + 1 : path);
  if (files() == nullptr || access(pipe, F_OK) != 0) return;
  appendLine("held: ", pipe);
  close(static_cast<int>(syscall(SYS_openat, AT_FDCWD, pipe, O_RDONLY | O_CLOEXEC)));
}

// The mode argument is there only with these.
mode_t modeOf(int flags, va_list arguments) {
  const bool given = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  return given ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

void test::takeLogLine(int priority, const char* format, va_list arguments) {
  if ((setlogmask(0) & LOG_MASK(LOG_PRI(priority))) == 0) return;
  static constexpr const char* kStarts[] = {"LOG_EMERG ", "LOG_ALERT ",   "LOG_CRIT ",
                                            "LOG_ERR ",   "LOG_WARNING ", "LOG_NOTICE ",
                                            "LOG_INFO ",  "LOG_DEBUG "};
  // On the stack as long as it is: a crash handler logs with a broken heap.
  char text[8192];
  std::vsnprintf(text, sizeof text, format, arguments);
  appendLine(kStarts[LOG_PRI(priority)], text);
}

extern "C" {

void openlog(const char* ident, int option, int facility) {
  char text[512];
  std::snprintf(text, sizeof text, "ident=%s option=%#x facility=%#x", ident,
                static_cast<unsigned>(option), static_cast<unsigned>(facility));
  appendLine("openlog ", text);
}

int open(const char* path, int flags, ...) {
  static const auto original = next<decltype(open)>("open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  char moved[PATH_MAX];
  waitWhereHeld(path);
  return original(redirected("", path, moved), flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
  static const auto original = next<decltype(openat)>("openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  char link[64];
  char place[PATH_MAX];
  char moved[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", folder);
  const ssize_t length = readlink(link, place, sizeof place - 1);
  std::strcpy(place + std::max<ssize_t>(length, 0), "/");
  return original(folder, redirected(place, path, moved), flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
  static const auto original = next<FILE*(const char*, const char*)>("fopen");
  char moved[PATH_MAX];
  return original(redirected("", path, moved), mode);
}

int rand() noexcept {
  static const auto original = next<int()>("rand");
  static const bool pinned = std::getenv("QS_TEST_NOISE") != nullptr;
  return pinned ? 1 : original();
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
  static const auto original = next<decltype(pthread_create)>("pthread_create");
  char refuses[PATH_MAX];
  std::snprintf(refuses, sizeof refuses, "%s/no-threads", files() != nullptr ? files() : "");
  if (files() != nullptr && access(refuses, F_OK) == 0) return EAGAIN;
  return original(thread, attributes, start, argument);
}
}
