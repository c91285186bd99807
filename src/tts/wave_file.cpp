#include "tts/wave_file.h"

#include <cerrno>
#include <cstdio>
#include <memory>

#include "tts/output_file.h"

namespace qs_ns {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

using File = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

int saveWaveFile(cst_wave& wave, const std::string& path) {
  platform::UniqueFd opened;
  if (const int failure = openOutputFile(path, opened); failure != 0) return failure;
  File file(::fdopen(opened.get(), "wb"));
  if (!file) return errno;
  opened.release();
  errno = 0;
  const bool written = cst_wave_save_riff_fd(&wave, file.get()) == 0 && !std::ferror(file.get());
  const int writeFailure = written ? 0 : errno;
  // What the library left in the buffer meets a full disk only here.
  const bool closed = std::fclose(file.release()) == 0;
  if (!written) return writeFailure != 0 ? writeFailure : EIO;
  return closed ? 0 : errno;
}

}  // namespace qs_ns
