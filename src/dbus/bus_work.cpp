#include "dbus/bus_work.h"

#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

namespace qs_ns {

namespace {

int makeEventDescriptor() {
  const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return descriptor;
}

}  // namespace

BusWork::BusWork() : eventDescriptor(makeEventDescriptor()) {}

BusWork::~BusWork() {
  close(eventDescriptor);
}

void BusWork::post(Kind kind, Work work) {
  {
    const platform::MutexLock hold(mutex);
    items.push_back({kind, std::move(work)});
  }
  eventfd_write(eventDescriptor, 1);
}

void BusWork::run() {
  eventfd_t posted = 0;
  eventfd_read(eventDescriptor, &posted);
  std::vector<Item> due;
  {
    const platform::MutexLock hold(mutex);
    due.swap(items);
  }
  runItems(due);
}

void BusWork::runSignals() {
  std::vector<Item> due;
  {
    const platform::MutexLock hold(mutex);
    const auto others = std::stable_partition(
        items.begin(), items.end(), [](const Item& item) { return item.kind == Kind::signal; });
    due.assign(std::make_move_iterator(items.begin()), std::make_move_iterator(others));
    items.erase(items.begin(), others);
  }
  runItems(due);
}

// One that fails (for lack of memory, say) must not take the rest, or the process, with it.
void BusWork::runItems(const std::vector<Item>& due) {
  for (const Item& item : due) {
    try {
      item.work();
    } catch (const std::exception& error) {
      syslog(LOG_ERR, "BusWork: posted work failed: %s", error.what());
    }
  }
}

}  // namespace qs_ns
