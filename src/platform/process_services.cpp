#include "platform/process_services.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <bsd/libutil.h>
#include <systemd/sd-daemon.h>

#include "platform/environment.h"
#include "platform/key_value_file.h"
#include "platform/mutex.h"
#include "platform/run_directory.h"
#include "platform/unique_fd.h"

namespace {

std::string pidPath(const std::string& folder, const std::string& name) {
  return folder + "/" + name + ".pid";
}

/// One held registration: a locked file, taken away with it.
class PidFile {
 public:
  PidFile(const std::string& where, pidfh* locked) : path(where), handle(locked) {}
  ~PidFile() {
    // Somebody may have cleared the folder, and another process put its own file there.
    if (isStillThere()) {
      pidfile_remove(handle);
    } else {
      pidfile_close(handle);
    }
  }
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

 private:
  bool isStillThere() const {
    struct stat held {};
    struct stat found {};
    return fstat(pidfile_fileno(handle), &held) == 0 && stat(path.c_str(), &found) == 0 &&
           held.st_dev == found.st_dev && held.st_ino == found.st_ino;
  }

  const std::string path;
  pidfh* const handle;
};

platform::Mutex registrationsMutex(true);
std::map<std::string, std::unique_ptr<PidFile>> registrations GUARDED_BY(registrationsMutex);

// The file of another user, in a folder that both may write.
bool isHeld(const std::string& path) {
  const platform::UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return file && flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// The lock is an flock, free again however the process ends. libbsd opens anew where the file that
// it locked had just been unlinked, so two processes never hold "the" file at once.
int openPidFile(const std::string& path, std::unique_ptr<PidFile>& registration) {
  pidfh* const handle = pidfile_open(path.c_str(), 0644, nullptr);
  if (handle == nullptr) return errno == EACCES && isHeld(path) ? EEXIST : errno;
  registration = std::make_unique<PidFile>(path, handle);
  fcntl(pidfile_fileno(handle), F_SETFD, FD_CLOEXEC);
  // It is the lock that counts; on a full disk the number stays away. (libbsd's own writing gives
  // the lock up there.)
  const std::string number = std::to_string(getpid());
  if (write(pidfile_fileno(handle), number.data(), number.size()) < 0) {
    syslog(LOG_WARNING, "%s: left empty: %s", path.c_str(), std::strerror(errno));
  }
  return 0;
}

}  // namespace

int create_varrunpid(const char* name) {
  const platform::MutexLock lock(registrationsMutex);
  if (registrations.contains(name)) return 0;
  const std::string folder = platform::runDirectory();
  if (folder.empty()) return 0;
  const std::string path = pidPath(folder, name);
  std::unique_ptr<PidFile> registration;
  const int error = openPidFile(path, registration);
  // libbsd changed which of the two it says.
  if (error == EWOULDBLOCK || error == EEXIST) return 1;
  if (error != 0) {
    syslog(LOG_WARNING, "%s: not registered: %s", path.c_str(), std::strerror(error));
    return 0;
  }
  registrations.emplace(name, std::move(registration));
  return 0;
}

void unlink_varrunpid(const char* name) {
  const platform::MutexLock lock(registrationsMutex);
  registrations.erase(name);
}

// systemd's protocol needs no connection: each message goes to the socket named in NOTIFY_SOCKET,
// and nowhere, successfully, where there is none. The name is of no use to it.
int restart_connect(const char*) {
  return sd_notify(0, "STATUS=Starting") < 0 ? -1 : 0;
}

void restart_ready() {
  sd_notify(0, "READY=1\nSTATUS=");
}

void restart_alive() {
  sd_notify(0, "WATCHDOG=1");
}

int restart_disconnect(const char*, int) {
  return sd_notify(0, "STOPPING=1") < 0 ? -1 : 0;
}

void settrcvalues(const char*, TraceValues* values) {
  constexpr std::int64_t kDefaultSeverity = LOG_INFO;
  platform::KeyValueFile file;
  file.refresh(platform::environmentOr("QUILLSPEAK_TRACE", "/etc/quillspeak/trace.conf"));
  const auto number = [&file](const char* key) {
    const std::string* text = file.find(key);
    return text != nullptr ? platform::parseNumber(*text) : std::nullopt;
  };
  // A mask such as 0xFFFFFFFF is meant as its bits.
  const auto field = [&number](const char* key) {
    const std::int64_t value = number(key).value_or(0);
    return value < INT32_MIN || value > UINT32_MAX ? 0 : static_cast<std::int32_t>(value);
  };
  const std::int64_t severity = number("baseseverity").value_or(kDefaultSeverity);
  values->baseseverity =
      static_cast<std::int32_t>(std::clamp<std::int64_t>(severity, LOG_EMERG, LOG_DEBUG));
  values->persistent = field("persistent");
  values->tracemask = field("tracemask");
  values->option = field("option");
  values->data = field("data");
  setlogmask(LOG_UPTO(values->baseseverity));
}

void pthread_name_np(pid_t thread, const char* name) {
  if (thread == gettid()) {
    prctl(PR_SET_NAME, name);
    return;
  }
  const std::string path = "/proc/self/task/" + std::to_string(thread) + "/comm";
  const platform::UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file) return;
  if (write(file.get(), name, std::min<std::size_t>(std::strlen(name), 15)) < 0) {
    syslog(LOG_WARNING, "thread %d not named \"%s\": %s", thread, name, std::strerror(errno));
  }
}
