#include "platform/watchdog.h"

#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include <systemd/sd-daemon.h>

#include "platform/clock.h"
#include "platform/process_services.h"

namespace platform {

namespace {

/// A timer that expires every `period`; none where the kernel refuses one.
UniqueFd makeTimer(std::chrono::microseconds period) {
  UniqueFd timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const auto wholeSeconds = std::chrono::duration_cast<std::chrono::seconds>(period);
  timespec time{};
  time.tv_sec = static_cast<time_t>(wholeSeconds.count());
  time.tv_nsec = static_cast<long>(std::chrono::nanoseconds(period - wholeSeconds).count());
  const itimerspec schedule{time, time};
  if (timer && timerfd_settime(timer.get(), 0, &schedule, nullptr) == 0) return timer;
  syslog(LOG_ERR, "Watchdog: no timer, the process will be restarted: %s", std::strerror(errno));
  return {};
}

}  // namespace

std::optional<std::chrono::microseconds> watchdogPeriod() {
  std::uint64_t limit = 0;
  if (sd_watchdog_enabled(0, &limit) <= 0) return std::nullopt;
  return std::chrono::microseconds(std::max<std::uint64_t>(limit / 2, 1));
}

Watchdog::Watchdog() {
  if (const auto period = watchdogPeriod()) timer = makeTimer(*period);
}

void Watchdog::feedWhenDue() const {
  std::uint64_t expirations = 0;
  if (timer && read(timer.get(), &expirations, sizeof expirations) > 0) restart_alive();
}

void sleepFed(std::chrono::nanoseconds duration) {
  const auto period = watchdogPeriod();
  if (!period) return clock().sleepFor(duration);
  restart_alive();
  for (auto left = duration; left.count() > 0; left -= *period) {
    clock().sleepFor(std::min<std::chrono::nanoseconds>(left, *period));
    restart_alive();
  }
}

}  // namespace platform
