#include "tts/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string_view>
#include <utility>

namespace qs_ns {

namespace {

using platform::UniqueFd;

// As many as the kernel follows in one path.
constexpr int kMaxLinks = 40;

constexpr int kEnter = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

UniqueFd openPlace(int folder, const std::string& name) {
  return UniqueFd(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

/// May somebody have put the link there who owns neither the folder nor this process? The kernel
/// asks the same where fs.protected_symlinks is on, which a small system may leave off.
bool isPlanted(const struct stat& link, const struct stat& folder) {
  const bool shared = (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  return shared && link.st_uid != folder.st_uid && link.st_uid != ::geteuid();
}

/// What the symbolic link that is open as `link` in `folder` points to. 0 or an errno value.
int readLink(const UniqueFd& link, const struct stat& linkStatus, const UniqueFd& folder,
             std::string& target) {
  struct stat status = {};
  if (::fstat(folder.get(), &status) != 0) return errno;
  if (isPlanted(linkStatus, status)) return ELOOP;
  char text[PATH_MAX];
  const ssize_t length = ::readlinkat(link.get(), "", text, sizeof text);
  if (length < 0) return errno;
  target.assign(text, static_cast<std::size_t>(length));
  return 0;
}

/// Goes on from `folder` by the first component of `rest`: into the folder of that name, or to
/// where the link of that name points, which then takes its place in `rest`. 0 or an errno value.
int takeStep(UniqueFd& folder, std::string& rest, int& links) {
  const std::size_t end = rest.find('/');
  const std::string name = rest.substr(0, end);
  UniqueFd place = openPlace(folder.get(), name);
  struct stat status = {};
  if (!place || ::fstat(place.get(), &status) != 0) return errno;
  if (S_ISLNK(status.st_mode)) {
    std::string target;
    if (++links > kMaxLinks) return ELOOP;
    if (const int failure = readLink(place, status, folder, target); failure != 0) return failure;
    rest.replace(0, end, target);
    if (target.starts_with('/')) folder = openPlace(AT_FDCWD, "/");
    return folder ? 0 : errno;
  }
  // Opened in earnest where that is allowed: a place in the tree alone mounts no file system.
  UniqueFd entered(::openat(folder.get(), name.c_str(), kEnter));
  folder = entered ? std::move(entered) : std::move(place);
  rest.erase(0, end);
  return 0;
}

/// Walks to the folder of the last component, which is left in `rest`. 0 or an errno value.
int openFolder(UniqueFd& folder, std::string& rest) {
  folder = openPlace(AT_FDCWD, rest.starts_with('/') ? "/" : ".");
  if (!folder) return errno;
  for (int links = 0;;) {
    rest.erase(0, rest.find_first_not_of('/'));
    if (rest.find('/') == std::string::npos) return 0;
    if (const int failure = takeStep(folder, rest, links); failure != 0) return failure;
  }
}

/// 0 for a regular file, else what it is to be refused with.
int refusal(const UniqueFd& file) {
  struct stat status = {};
  if (::fstat(file.get(), &status) != 0) return errno;
  if (S_ISLNK(status.st_mode)) return ELOOP;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  return S_ISREG(status.st_mode) ? 0 : EOPNOTSUPP;
}

/// Looks at what is there before it is opened, since some devices act on that alone, and once more
/// afterwards, since it may be another one by then. 0 or an errno value.
int openRegularFile(const UniqueFd& folder, const std::string& name, UniqueFd& file) {
  constexpr int kFlags = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const UniqueFd found = openPlace(folder.get(), name);
  if (found) {
    if (const int failure = refusal(found); failure != 0) return failure;
  } else if (errno != ENOENT) {
    return errno;
  }
  file = UniqueFd(
      ::openat(folder.get(), name.c_str(), found ? kFlags : kFlags | O_CREAT | O_EXCL, 0666));
  return file ? refusal(file) : errno;
}

}  // namespace

int openOutputFile(const std::string& path, UniqueFd& file) {
  // The kernel's own limit, which a walk would go around.
  if (path.size() >= PATH_MAX) return ENAMETOOLONG;
  UniqueFd folder;
  std::string name = path;
  if (const int failure = openFolder(folder, name); failure != 0) return failure;
  UniqueFd opened;
  if (const int failure = openRegularFile(folder, name, opened); failure != 0) return failure;
  if (::ftruncate(opened.get(), 0) != 0) return errno;
  file = std::move(opened);
  return 0;
}

}  // namespace qs_ns
