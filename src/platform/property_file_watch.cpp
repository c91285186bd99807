#include "platform/property_file_watch.h"

#include <sys/inotify.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/clock.h"
#include "platform/property_store.h"

namespace platform {

namespace {

constexpr std::chrono::seconds kBetweenLooks{1};
// Not what is being written: half a file has other values than the whole.
constexpr std::uint32_t kEvents = IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_CLOSE_WRITE |
                                  IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                                  IN_ONLYDIR;

std::string folderOf(const std::filesystem::path& file) {
  return file.has_parent_path() ? file.parent_path().string() : ".";
}

}  // namespace

PropertyFileWatch::PropertyFileWatch()
    : file(propertyFile()), inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (!inotify) {
    syslog(LOG_ERR, "PropertyFileWatch: no watch, changes are seen late: %s", std::strerror(errno));
  }
}

bool PropertyFileWatch::mayHaveChanged() {
  const MonotonicTime now = clock().now();
  if (!somethingHappened() && lastLook && now - *lastLook < kBetweenLooks) return false;
  lastLook = now;
  if (inotify) watchFolders();
  return true;
}

// One read for one turn: what is left wakes the loop again, and whoever floods the folder does not
// keep it here.
bool PropertyFileWatch::somethingHappened() const {
  char events[4096];
  return inotify && read(inotify.get(), events, sizeof events) > 0;
}

// The same folder again has the same number and costs nothing, so no event needs to be understood.
PropertyFileWatch::Folder PropertyFileWatch::watch(const std::filesystem::path& of,
                                                   const Folder& before) const {
  const std::string folder = folderOf(of);
  Folder now;
  now.number = inotify_add_watch(inotify.get(), folder.c_str(), kEvents);
  if (now.number < 0) now.error = errno;
  if (now.error != 0 && now.error != ENOENT && now.error != before.error) {
    syslog(LOG_WARNING, "PropertyFileWatch: %s: no watch, changes are seen late: %s",
           folder.c_str(), std::strerror(now.error));
  }
  return now;
}

void PropertyFileWatch::watchFolders() {
  std::error_code failure;
  const bool isLink = std::filesystem::is_symlink(file, failure);
  const auto target = isLink ? std::filesystem::weakly_canonical(file, failure) : file;
  const Folder nowOwn = watch(file, own);
  const Folder nowLinked = isLink && !failure ? watch(target, linked) : Folder{};
  for (const Folder& old : {std::exchange(own, nowOwn), std::exchange(linked, nowLinked)}) {
    const bool isStill = old.number == own.number || old.number == linked.number;
    if (old.number >= 0 && !isStill) inotify_rm_watch(inotify.get(), old.number);
  }
}

}  // namespace platform
