#include "platform/run_directory.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/environment.h"

namespace platform {

namespace {

constexpr const char* kSystemFolder = "/run/quillspeak";

std::string publicFolder(const std::string& folder) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(folder).parent_path(), ignored);
  if (mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST) return folder;
  syslog(LOG_WARNING, "%s: cannot be made: %s", folder.c_str(), std::strerror(errno));
  return {};
}

}  // namespace

std::string runDirectory() {
  const std::string chosen = environmentOr("QUILLSPEAK_RUN_DIR", "");
  if (!chosen.empty()) return publicFolder(chosen);
  if (geteuid() == 0 || access(kSystemFolder, W_OK) == 0) return publicFolder(kSystemFolder);
  std::string session = environmentOr("XDG_RUNTIME_DIR", "");
  // The variable may be that of another session, whose folder is gone.
  std::error_code ignored;
  if (std::filesystem::is_directory(session, ignored)) return session;
  return privateFolder("/tmp/quillspeak-" + std::to_string(geteuid()));
}

std::string privateFolder(const std::string& folder) {
  mkdir(folder.c_str(), 0700);
  struct stat found {};
  const bool trusted = lstat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode) &&
                       found.st_uid == geteuid() && (found.st_mode & 077) == 0;
  if (trusted) return folder;
  syslog(LOG_WARNING, "%s: not a private folder of user %u, not used", folder.c_str(), geteuid());
  return {};
}

}  // namespace platform
