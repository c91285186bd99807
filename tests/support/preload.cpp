// Loaded into a program under test with LD_PRELOAD. Variables switch its parts on:
//   QS_TEST_SYSLOG  a file that gets a line for each message that passes the log mask,
//                   "<LEVEL> <text>" with a newline written as \n, and one for openlog:
//                   "openlog ident=I option=0xO facility=0xF"
//   QS_TEST_FILES   a folder in which the files of fixed paths are looked for, by their names alone
//                   and in which a file "no-threads" makes every start of a thread fail
//   QS_TEST_RAND    see pinned_rand.cpp

// The fortified headers define what is defined here.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

const char* logPath() {
  static const char* const path = std::getenv("QS_TEST_SYSLOG");
  return path;
}

std::atomic<int> logMask{LOG_UPTO(LOG_DEBUG)};

// Memory on the stack as long as it does: a crash handler logs with a broken heap.
template <std::size_t kInside>
class Buffer {
 public:
  explicit Buffer(std::size_t size) {
    if (size > kInside) outside.reset(new (std::nothrow) char[size]);
  }
  char* data() { return outside ? outside.get() : inside; }

 private:
  char inside[kInside];
  std::unique_ptr<char[]> outside;
};

// One write for one line, so that lines of several threads and processes never mix.
void appendLine(const char* start, const char* text) {
  Buffer<8192> line(std::strlen(start) + 2 * std::strlen(text) + 2);
  char* end = stpcpy(line.data(), start);
  for (; *text != '\0'; ++text) {
    if (*text == '\n') *end++ = '\\';
    *end++ = *text == '\n' ? 'n' : *text;
  }
  *end++ = '\n';
  // Past our own `open`.
  const auto file = static_cast<int>(
      syscall(SYS_openat, AT_FDCWD, logPath(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (file < 0) return;
  [[maybe_unused]] const ssize_t count =
      write(file, line.data(), static_cast<std::size_t>(end - line.data()));
  close(file);
}

[[gnu::format(printf, 2, 0)]] void record(int priority, const char* format, va_list arguments) {
  static constexpr const char* kStarts[] = {"LOG_EMERG ", "LOG_ALERT ",   "LOG_CRIT ",
                                            "LOG_ERR ",   "LOG_WARNING ", "LOG_NOTICE ",
                                            "LOG_INFO ",  "LOG_DEBUG "};
  const int level = LOG_PRI(priority);
  if ((logMask.load() & LOG_MASK(level)) == 0) return;
  const int saved = errno;  // for %m
  va_list again;
  va_copy(again, arguments);
  char shortText[2048];
  const int length = std::vsnprintf(shortText, sizeof shortText, format, arguments);
  const auto size = static_cast<std::size_t>(length < 0 ? 0 : length) + 1;
  if (size <= sizeof shortText) {
    appendLine(kStarts[level], shortText);
  } else {
    Buffer<1> longText(size);
    errno = saved;
    std::vsnprintf(longText.data(), size, format, again);
    appendLine(kStarts[level], longText.data());
  }
  va_end(again);
  errno = saved;
}

[[gnu::format(printf, 2, 0)]] void passOn(int priority, const char* format, va_list arguments) {
  static const auto original = next<decltype(vsyslog)>("vsyslog");
  if (logPath() != nullptr) {
    record(priority, format, arguments);
  } else {
    original(priority, format, arguments);
  }
}

/// Where the file at `path` really is; `folder` is an open folder that the path starts from.
class Redirected {
 public:
  explicit Redirected(const char* path, int folder = AT_FDCWD) : result(path) {
    static constexpr const char* kFixedPaths[] = {
        "/etc/addenda.lex", "/usr/mbin/data/rt/error_mono.raw", "/tmp/test.rwb", "/tmp/test.wav"};
    static const char* const files = std::getenv("QS_TEST_FILES");
    if (files == nullptr || path == nullptr) return;
    char whole[PATH_MAX] = "";
    if (folder != AT_FDCWD) {
      char link[64];
      std::snprintf(link, sizeof link, "/proc/self/fd/%d", folder);
      const ssize_t length = readlink(link, whole, sizeof whole - 1);
      std::strcpy(whole + (length > 0 ? length : 0), "/");
    }
    if (std::strlen(whole) + std::strlen(path) >= sizeof whole) return;
    std::strcat(whole, path);
    for (const char* fixed : kFixedPaths) {
      if (std::strcmp(whole, fixed) != 0) continue;
      std::snprintf(moved, sizeof moved, "%s%s", files, std::strrchr(fixed, '/'));
      result = moved;
    }
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;
  const char* get() const { return result; }

 private:
  char moved[PATH_MAX];
  const char* result;
};

// The mode argument is there only with these.
mode_t modeOf(int flags, va_list arguments) {
  const bool given = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  return given ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" {

// Declared in the fortified headers only.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, const char* format, ...);
[[gnu::format(printf, 3, 0)]] void __vsyslog_chk(int priority, int flag, const char* format,
                                                 va_list arguments);

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  passOn(priority, format, arguments);
  va_end(arguments);
}

void vsyslog(int priority, const char* format, va_list arguments) {
  passOn(priority, format, arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  passOn(priority, format, arguments);
  va_end(arguments);
}

void __vsyslog_chk(int priority, int, const char* format, va_list arguments) {
  passOn(priority, format, arguments);
}

void openlog(const char* ident, int option, int facility) {
  static const auto original = next<decltype(openlog)>("openlog");
  if (logPath() == nullptr) return original(ident, option, facility);
  char text[512];
  std::snprintf(text, sizeof text, "ident=%s option=%#x facility=%#x",
                ident != nullptr ? ident : "", static_cast<unsigned>(option),
                static_cast<unsigned>(facility));
  appendLine("openlog ", text);
}

int setlogmask(int mask) noexcept {
  static const auto original = next<int(int)>("setlogmask");
  original(mask);
  return mask != 0 ? logMask.exchange(mask) : logMask.load();
}

int open(const char* path, int flags, ...) {
  static const auto original = next<decltype(open)>("open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return original(Redirected(path).get(), flags, mode);
}

int open64(const char* path, int flags, ...) {
  static const auto original = next<decltype(open64)>("open64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return original(Redirected(path).get(), flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
  static const auto original = next<decltype(openat)>("openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return original(folder, Redirected(path, folder).get(), flags, mode);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
  static const auto original = next<decltype(pthread_create)>("pthread_create");
  static const char* const files = std::getenv("QS_TEST_FILES");
  char refuses[PATH_MAX];
  std::snprintf(refuses, sizeof refuses, "%s/no-threads", files != nullptr ? files : "");
  if (files != nullptr && access(refuses, F_OK) == 0) return EAGAIN;
  return original(thread, attributes, start, argument);
}

FILE* fopen(const char* path, const char* mode) {
  static const auto original = next<FILE*(const char*, const char*)>("fopen");
  return original(Redirected(path).get(), mode);
}

FILE* fopen64(const char* path, const char* mode) {
  static const auto original = next<FILE*(const char*, const char*)>("fopen64");
  return original(Redirected(path).get(), mode);
}
}
