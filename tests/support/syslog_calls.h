#pragma once

// The C library's ways to log, defined as one of the program's own; for one source of a program.

#include <syslog.h>

#include <cstdarg>

namespace test {
/// Where they lead to.
[[gnu::format(printf, 2, 0)]] void takeLogLine(int priority, const char* format, va_list arguments);
}  // namespace test

extern "C" {

// Declared in the fortified headers only.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, const char* format, ...);

void vsyslog(int priority, const char* format, va_list arguments) {
  test::takeLogLine(priority, format, arguments);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  test::takeLogLine(priority, format, arguments);
  va_end(arguments);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  test::takeLogLine(priority, format, arguments);
  va_end(arguments);
}
}
