#include "tts/wave_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

namespace qs_ns {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

using File = std::unique_ptr<std::FILE, FileCloser>;

/// Empties the file only once it is known to be a regular one. 0 or an errno value.
int emptyRegularFile(int descriptor) {
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EOPNOTSUPP;
  return ::ftruncate(descriptor, 0) == 0 ? 0 : errno;
}

/// Opens `path` for writing into `file`. 0 or an errno value.
int openWaveFile(const std::string& path, File& file) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const int descriptor = ::open(path.c_str(), kFlags, 0666);
  if (descriptor < 0) return errno;
  int failure = emptyRegularFile(descriptor);
  if (failure == 0) {
    file.reset(::fdopen(descriptor, "wb"));
    if (!file) failure = errno;
  }
  if (failure != 0) ::close(descriptor);
  return failure;
}

}  // namespace

int saveWaveFile(cst_wave& wave, const std::string& path) {
  File file;
  const int failure = openWaveFile(path, file);
  if (failure != 0) return failure;
  errno = 0;
  const bool written = cst_wave_save_riff_fd(&wave, file.get()) == 0 && !std::ferror(file.get());
  const int writeFailure = written ? 0 : errno;
  // What the library left in the buffer meets a full disk only here.
  const bool closed = std::fclose(file.release()) == 0;
  if (!written) return writeFailure != 0 ? writeFailure : EIO;
  return closed ? 0 : errno;
}

}  // namespace qs_ns
